// The products against their definition, bit for bit: an element is the sum of its terms in the order of k, whatever
// path the orders select.
#include "kernel/products.h"

#include <gtest/gtest.h>

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

struct Member {
  const char* name;
  bool At, Bt;
  Into into;
  decltype(&kdr::mulAB) call;
};

const Member members[] = {
    {"mulAB", false, false, Into::set, kdr::mulAB},  {"mulAtB", true, false, Into::set, kdr::mulAtB},
    {"mulABt", false, true, Into::set, kdr::mulABt}, {"addAB", false, false, Into::add, kdr::addAB},
    {"addAtB", true, false, Into::add, kdr::addAtB}, {"addABt", false, true, Into::add, kdr::addABt},
    {"subAB", false, false, Into::sub, kdr::subAB},  {"subABt", false, true, Into::sub, kdr::subABt},
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
          const int lda = member.At ? m : n, ldb = member.Bt ? n : p;
          const Matrix A = random(engine, member.At ? n : m, lda), B = random(engine, member.Bt ? p : n, ldb);
          Matrix C = random(engine, m, p), expected = C;
          define(expected, p, A, lda, member.At, B, ldb, member.Bt, m, p, n, member.into);
          member.call(C.data(), A.data(), B.data(), m, p, n);
          ASSERT_EQ(C, expected) << member.name << " m " << m << " p " << p << " n " << n;
        }
}

}  // namespace
