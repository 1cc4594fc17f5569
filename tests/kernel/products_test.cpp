// The products against their definition, bit for bit: an element is the sum of its terms in the order of k, whatever
// path the orders select.
#include "kernel/products.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

namespace {

using Matrix = std::vector<double>;

enum class Into { set, add, sub };

// C (ldc) := or += or -= op(A) op(B), written out.
void define(Matrix& C, int ldc, const Matrix& A, int lda, bool At, const Matrix& B, int ldb, bool Bt, int m, int p,
            int n, Into into) {
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < p; ++j) {
      double& c = C.at(static_cast<std::size_t>(i * ldc + j));
      if (into == Into::set) c = 0.0;
      for (int k = 0; k < n; ++k) {
        const double term = A.at(static_cast<std::size_t>(At ? k * lda + i : i * lda + k)) *
                            B.at(static_cast<std::size_t>(Bt ? j * ldb + k : k * ldb + j));
        c = into == Into::sub ? c - term : c + term;
      }
    }
}

using Call =
    std::function<void(Matrix& C, int ldc, const Matrix& A, int lda, const Matrix& B, int ldb, int m, int p, int n)>;

Call dense(decltype(&kdr::mulAB) f) {
  return [f](Matrix& C, int, const Matrix& A, int, const Matrix& B, int, int m, int p, int n) {
    f(C.data(), A.data(), B.data(), m, p, n);
  };
}

Call strided(decltype(&kdr::mulABld) f) {
  return [f](Matrix& C, int ldc, const Matrix& A, int lda, const Matrix& B, int ldb, int m, int p, int n) {
    f(C.data(), ldc, A.data(), lda, B.data(), ldb, m, p, n);
  };
}

struct Member {
  const char* name;
  bool At, Bt;
  Into into;
  int extra;  // columns of each operand and of C beyond the dense ones
  Call call;
};

const Member members[] = {
    {"mulAB", false, false, Into::set, 0, dense(kdr::mulAB)},
    {"mulAtB", true, false, Into::set, 0, dense(kdr::mulAtB)},
    {"mulABt", false, true, Into::set, 0, dense(kdr::mulABt)},
    {"addAB", false, false, Into::add, 0, dense(kdr::addAB)},
    {"addAtB", true, false, Into::add, 0, dense(kdr::addAtB)},
    {"addABt", false, true, Into::add, 0, dense(kdr::addABt)},
    {"subAB", false, false, Into::sub, 0, dense(kdr::subAB)},
    {"subABt", false, true, Into::sub, 0, dense(kdr::subABt)},
    {"mulABld", false, false, Into::set, 3, strided(kdr::mulABld)},
    {"mulAtBld", true, false, Into::set, 3, strided(kdr::mulAtBld)},
    {"mulABtld", false, true, Into::set, 3, strided(kdr::mulABtld)},
};

Matrix random(std::mt19937_64& engine, int rows, int cols) {
  std::normal_distribution<double> normal;
  Matrix m(static_cast<std::size_t>(rows * cols));
  for (double& x : m) x = normal(engine);
  return m;
}

TEST(Products, EveryMemberAndShapeSumsInTheOrderOfK) {
  std::mt19937_64 engine(1);
  const int orders[] = {0, 1, 2, 3, 4, 5, 6, 7, 11};
  for (const Member& member : members)
    for (const int m : orders)
      for (const int p : orders)
        for (const int n : orders) {
          const int lda = (member.At ? m : n) + member.extra, ldb = (member.Bt ? n : p) + member.extra;
          const int ldc = p + member.extra;
          const Matrix A = random(engine, member.At ? n : m, lda), B = random(engine, member.Bt ? p : n, ldb);
          Matrix C = random(engine, m, ldc), expected = C;
          define(expected, ldc, A, lda, member.At, B, ldb, member.Bt, m, p, n, member.into);
          member.call(C, ldc, A, lda, B, ldb, m, p, n);
          ASSERT_EQ(C, expected) << member.name << " m " << m << " p " << p << " n " << n;
        }
}

TEST(Products, SubAtx) {
  std::mt19937_64 engine(2);
  for (const int m : {1, 2, 3, 4, 5, 9})
    for (const int n : {1, 2, 3, 4, 5, 9}) {
      const Matrix A = random(engine, n, m), x = random(engine, n, 1);
      Matrix c = random(engine, m, 1), expected = c;
      define(expected, 1, A, m, true, x, 1, false, m, 1, n, Into::sub);
      kdr::subAtx(c.data(), A.data(), x.data(), m, n);
      ASSERT_EQ(c, expected) << m << " " << n;
    }
}

}  // namespace
