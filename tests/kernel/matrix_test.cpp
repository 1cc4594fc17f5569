#include "kernel/matrix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using Matrix = std::vector<double>;

TEST(Matrix, SumsMayWriteOverAnOperand) {
  Matrix a{1, 2, 3, 4, 5, 6};
  const Matrix b{10, 20, 30, 40, 50, 60};
  kdr::matadd(a.data(), a.data(), b.data(), 2, 3);
  EXPECT_EQ(a, (Matrix{11, 22, 33, 44, 55, 66}));
  kdr::matsub(a.data(), b.data(), a.data(), 2, 3);
  EXPECT_EQ(a, (Matrix{-1, -2, -3, -4, -5, -6}));
}

TEST(Matrix, BlocksOfALargerMatrix) {
  Matrix m{1, 2, 3, 4, 5, 6, 7, 8, 9};
  kdr::scale(m.data(), 2, 2, 3, 10.0);
  EXPECT_EQ(m, (Matrix{10, 20, 3, 40, 50, 6, 7, 8, 9}));
  EXPECT_EQ(kdr::trace(m.data(), 2, 3), 60.0);
  kdr::zerofill(m.data() + 3, 1, 3);
  EXPECT_EQ(m, (Matrix{10, 20, 3, 0, 0, 0, 7, 8, 9}));

  Matrix slots(12, -1.0);  // two blocks of 2 by 3
  kdr::copyblock(slots.data(), 1, m.data() + 1, 2, 2, 3, 3);
  EXPECT_EQ(slots, (Matrix{-1, -1, -1, -1, -1, -1, 20, 3, -1, 0, 0, -1}));
}

TEST(Matrix, Transposes) {
  const Matrix src{1, 2, 3, 4, 5, 6};
  Matrix dest(6);
  kdr::transpose(dest.data(), src.data(), 2, 3);
  EXPECT_EQ(dest, (Matrix{1, 4, 2, 5, 3, 6}));

  Matrix sum{100, 200, 300, 400};
  kdr::addtransposed(sum.data(), src.data(), 2);
  EXPECT_EQ(sum, (Matrix{101, 203, 302, 404}));
}

TEST(Matrix, KroneckerLeavesTheStride) {
  const Matrix a{1, 2}, b{1, 10, 100, 1000};
  Matrix dest(10, -1.0);
  kdr::kronecker(dest.data(), 5, a.data(), 1, 2, b.data(), 2, 2);
  EXPECT_EQ(dest, (Matrix{1, 10, 2, 20, -1, 100, 1000, 200, 2000, -1}));
}

TEST(Matrix, DroppedColumnsAndRows) {
  const Matrix whole{1, 2, 3, -1, 4, 5, 6, -1};  // 2 by 3, stride 4
  const struct {
    int col;
    Matrix left;
  } columns[] = {{0, {2, 3, 3, -1, 5, 6, 0, -1}}, {1, {1, 3, 3, -1, 4, 6, 0, -1}}, {2, {1, 2, 3, -1, 4, 5, 0, -1}}};
  for (const auto& [col, left] : columns) {
    Matrix m = whole;
    kdr::dropcolumn(m.data(), 4, 2, 3, col);
    EXPECT_EQ(m, left) << col;
  }
  Matrix m{1, 2, 3, 4, 5, 6};
  kdr::droprow(m.data(), 3, 2, 0);
  EXPECT_EQ(m, (Matrix{3, 4, 5, 6, 5, 6}));
  kdr::droprow(m.data(), 3, 2, 2);
  EXPECT_EQ(m, (Matrix{3, 4, 5, 6, 5, 6}));
}

TEST(Matrix, MinimaAndMaximaStartBeyondAnyValue) {
  Matrix min(2), max(2), mean(2, 5.0);
  kdr::initminmax(min.data(), max.data(), mean.data(), 2);
  EXPECT_EQ(min, (Matrix{1e36, 1e36}));
  EXPECT_EQ(max, (Matrix{-1e36, -1e36}));
  EXPECT_EQ(mean, (Matrix{0, 0}));
}

TEST(Sort, AdversarialInput) {
  constexpr int n = 1000000;
  std::mt19937_64 engine(3);
  const auto make = [&](auto value) {
    Matrix a(n);
    for (int i = 0; i < n; ++i) a[static_cast<std::size_t>(i)] = value(i);
    return a;
  };
  const struct {
    const char* name;
    Matrix a;
  } inputs[] = {{"sorted", make([](int i) { return i; })},
                {"reversed", make([](int i) { return -i; })},
                {"equal", make([](int) { return 2.5; })},
                {"two values", make([](int i) { return i % 2; })},
                {"the first the largest", make([](int i) { return i == 0 ? n : i; })},
                {"organ pipe", make([](int i) { return std::min(i, n - i); })},
                {"random", make([&](int) { return static_cast<double>(engine()) - 9e18; })},
                {"infinite ends", make([](int i) {
                   constexpr double infinity = std::numeric_limits<double>::infinity();
                   return i % 3 == 0 ? infinity : i % 3 == 1 ? -infinity : i;
                 })}};
  for (const auto& [name, input] : inputs) {
    Matrix a = input, expected = input;
    kdr::sortdoubles(a.data(), n);
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(a == expected) << name;
  }
}

TEST(Sort, AllOrdersOfShortInput) {
  for (int n = 0; n <= 7; ++n) {
    Matrix sorted;
    for (int i = 0; i < n; ++i) sorted.push_back(i / 2);  // with ties
    Matrix order = sorted;
    do {
      Matrix a = order;
      kdr::sortdoubles(a.data(), n);
      ASSERT_EQ(a, sorted);
    } while (std::next_permutation(order.begin(), order.end()));
  }
}

TEST(Sort, NaNsStayInside) {
  Matrix a(1000);
  for (std::size_t i = 0; i < a.size(); ++i) a[i] = i % 7 == 0 ? std::nan("") : static_cast<double>(i * 37 % 101);
  kdr::sortdoubles(a.data(), 1000);
  EXPECT_EQ(std::count_if(a.begin(), a.end(), [](double x) { return std::isnan(x); }), 143);
}

TEST(CountSignificant, ScalesByCurvatureAndLikelihood) {
  // s -50: L = 100. Curvatures 4 and -9 and, below 1, 0.25: the gradient counts from 0.0001 * 10 * {2, 3, 1}.
  const Matrix h{4, 7, 7, 7, -9, 7, 7, 7, 0.25};
  const struct {
    Matrix g;
    int count;
  } cases[] = {{{0.0021, -0.0031, 0.0011}, 3}, {{0.0019, -0.0031, 0.0009}, 1}, {{-0.0019, 0.0029, -0.0009}, 0}};
  for (const auto& [g, count] : cases) EXPECT_EQ(kdr::countsignificant(3, -50.0, h.data(), g.data()), count);
  const double flat = 0.0, gradient = 0.00011;
  EXPECT_EQ(kdr::countsignificant(1, 0.1, &flat, &gradient), 1);
}

}  // namespace
