#include "kernel/matrix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

using Matrix = std::vector<double>;

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
