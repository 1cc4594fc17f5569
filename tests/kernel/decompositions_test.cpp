#include "kernel/decompositions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

#include "estimate/linear/dense.h"

namespace {

using Matrix = std::vector<double>;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

std::size_t at(int i, int j, int ld) { return static_cast<std::size_t>(i * ld + j); }

struct Inverse {
  Matrix inv, work;
  int result;
};

Inverse invert(int n, const Matrix& a) {
  Inverse r{Matrix(a.size()), Matrix(static_cast<std::size_t>(std::max(3, n * (n + 1) / 2))), 0};
  r.result = kdr::syminverse(n, a.data(), n, r.inv.data(), n, r.work.data());
  return r;
}

// X'X / n + ridge I for a random X of n + 2 rows.
Matrix covariance(int n, unsigned seed) {
  std::mt19937_64 engine(seed);
  std::normal_distribution<double> normal;
  Matrix S(at(n, 0, n));
  for (int r = 0; r < n + 2; ++r) {
    Matrix x(static_cast<std::size_t>(n));
    for (double& value : x) value = normal(engine);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) S[at(i, j, n)] += x[at(0, i, n)] * x[at(0, j, n)] / n;
  }
  for (int i = 0; i < n; ++i) S[at(i, i, n)] += 0.1;
  return S;
}

// The symmetric tridiagonal matrix with 2 on and -1 beside the diagonal: eigenvalues 2 - 2 cos(i pi/(n+1)),
// determinant n + 1, inverse min(i,j) (n + 1 - max(i,j)) / (n + 1) from 1.
Matrix toeplitz(int n) {
  Matrix T(at(n, 0, n));
  for (int i = 0; i < n; ++i) {
    T[at(i, i, n)] = 2.0;
    if (i > 0) T[at(i, i - 1, n)] = T[at(i - 1, i, n)] = -1.0;
  }
  return T;
}

Matrix hilbert(int n) {
  Matrix H(at(n, 0, n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) H[at(i, j, n)] = 1.0 / (i + j + 1);
  return H;
}

TEST(Syminverse, ResultsOfSmallMatrices) {
  const double log4 = std::log(4.0);
  const struct {
    const char* name;
    int n;
    Matrix a, inv;  // inv empty: of no use
    double det, logdet, flag;
    int result;
  } cases[] = {
      {"order 1", 1, {4}, {0.25}, 4, log4, 0, 0},
      {"negative order 1", 1, {-4}, {-0.25}, -4, 0, 1, 2},
      {"zero", 1, {0}, {}, 0, 0, 0, 1},
      {"positive definite", 2, {4, 2, 2, 2}, {0.5, -0.5, -0.5, 1}, 4, log4, 0, 0},
      {"indefinite", 2, {1, 2, 2, 1}, {-1. / 3, 2. / 3, 2. / 3, -1. / 3}, -3, 0, 1, 2},
      {"negative definite", 2, {-2, 0, 0, -2}, {-0.5, 0, 0, -0.5}, 4, 0, 1, 0},
      {"singular", 2, {1, 1, 1, 1}, {}, 0, 0, 0, 1},
      {"invertible, but not without pivoting", 2, {0, 1, 1, 0}, {}, 0, 0, 0, 1},
      {"singular leading block", 3, {1, 1, 0, 1, 1, 1, 0, 1, 1}, {}, 0, 0, 0, 1},
      // the second determinant underflows and is not taken
      {"underflow", 2, {1e-200, 0, 0, 1e-200}, {1e200, 0, 0, 1e200}, 1e-200, 2 * std::log(1e-200), 0, 0},
  };
  for (const auto& c : cases) {
    const Inverse r = invert(c.n, c.a);
    EXPECT_EQ(r.result, c.result) << c.name;
    EXPECT_DOUBLE_EQ(r.work[0], c.det) << c.name;
    EXPECT_DOUBLE_EQ(r.work[1], c.logdet) << c.name;
    EXPECT_EQ(r.work[2], c.flag) << c.name;
    for (std::size_t i = 0; i < c.inv.size(); ++i) EXPECT_DOUBLE_EQ(r.inv[i], c.inv[i]) << c.name << " " << i;
  }
  EXPECT_FALSE(invert(2, {nan, 0, 0, 1}).work[0] == 0.0);
}

TEST(Syminverse, ClosedFormInverses) {
  for (int n = 1; n <= 50; ++n) {
    const Inverse r = invert(n, toeplitz(n));
    EXPECT_EQ(r.result, 0);
    EXPECT_NEAR(r.work[0], n + 1, 1e-11 * n);
    EXPECT_NEAR(r.work[1], std::log(n + 1.0), 1e-12);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        ASSERT_NEAR(r.inv[at(i, j, n)], (std::min(i, j) + 1.0) * (n - std::max(i, j)) / (n + 1), 1e-11) << n;
  }
}

TEST(Syminverse, InverseTimesMatrixIsTheIdentity) {
  for (int n = 1; n <= 40; ++n) {
    const Matrix S = covariance(n, static_cast<unsigned>(n));
    const Inverse r = invert(n, S);
    ASSERT_EQ(r.result, 0);
    dense::Matrix full(n, n);
    full.cells = S;
    double logdet = 0.0;
    dense::inverse(full, &logdet);
    EXPECT_NEAR(std::log(r.work[0]), logdet, 1e-11);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double sum = 0.0;
        for (int k = 0; k < n; ++k) sum += r.inv[at(i, k, n)] * S[at(k, j, n)];
        ASSERT_NEAR(sum, i == j, 1e-11) << n;
        ASSERT_EQ(r.inv[at(i, j, n)], r.inv[at(j, i, n)]);
      }
  }
}

// Zeros beside a block and an identity behind it don't change one bit of the block's inverse, so the paths of the small
// fixed orders can be held against the general one.
TEST(Syminverse, FixedAndGeneralOrdersGiveTheSameBits) {
  for (int n = 1; n <= 6; ++n)
    for (unsigned seed = 1; seed <= 50; ++seed) {
      Matrix S = covariance(n, seed);
      if (seed % 5 == 0) S[at(n - 1, n - 1, n)] = -S[at(n - 1, n - 1, n)];
      constexpr int order = 9;
      Matrix large(order * order);
      for (int i = 0; i < order; ++i) large[at(i, i, order)] = 1.0;
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) large[at(i, j, order)] = S[at(i, j, n)];
      const Inverse small = invert(n, S), general = invert(order, large);
      EXPECT_EQ(small.result, general.result);
      for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(small.work[i], general.work[i]);
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) ASSERT_EQ(small.inv[at(i, j, n)], general.inv[at(i, j, order)]) << n;
    }
}

TEST(Syminverse, StridesAndInversionInPlace) {
  for (int n = 1; n <= 7; ++n) {
    const Matrix S = covariance(n, 99);
    const Inverse expected = invert(n, S);
    const int ld = n + 2;
    Matrix a(at(n, 0, ld), -7.0), work(100);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) a[at(i, j, ld)] = j <= i ? S[at(i, j, n)] : nan;  // the upper triangle is not read
    EXPECT_EQ(kdr::syminverse(n, a.data(), ld, a.data(), ld, work.data()), 0);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < ld; ++j) EXPECT_EQ(a[at(i, j, ld)], j < n ? expected.inv[at(i, j, n)] : -7.0);
  }
}

TEST(UnitCorrelation, Cases) {
  const struct {
    int n;
    Matrix a;
    bool unit;
  } cases[] = {{1, {0}, false},
               {2, {1, 1, 1, 1}, true},
               {2, {0, 0, 0, 1}, true},
               {2, {4, -6.01, -6.01, 9}, true},
               {2, {4, 5.99, 5.99, 9}, false},
               {2, {-4, 1, 1, 1}, false},  // the sign of a variance is not its concern
               {3, {1, 0, 0, 0, 1, 1, 0, 1, 1}, true},
               {3, {1, 0, .9, 0, 1, .9, .9, .9, 1}, false}};
  for (const auto& c : cases) EXPECT_EQ(kdr::hasunitcorrelation(c.n, c.a.data(), c.n), c.unit) << c.n;
  // order 2 in a stride of 3: the third column stays out
  const Matrix wide{1, 0, 9, 0, 1, 9};
  EXPECT_FALSE(kdr::hasunitcorrelation(2, wide.data(), 3));
}

TEST(PositiveDefinite, ConditionOfKnownSpectra) {
  // condition numbers of the Hilbert matrices in 40-digit arithmetic (mpmath.eigsy)
  const double hilberts[] = {19.28147006790397, 524.05677758606082, 15513.738738932588, 476607.25024256098,
                             14951058.640131217};
  double cond = 0.0;
  for (int n = 2; n <= 6; ++n) {
    EXPECT_TRUE(kdr::ispositivedefinite(n, hilbert(n).data(), n, &cond));
    EXPECT_NEAR(cond / hilberts[n - 2], 1.0, 1e-8) << n;
  }
  for (const int n : {2, 3, 5, 8, 9, 20, 50}) {
    EXPECT_TRUE(kdr::ispositivedefinite(n, toeplitz(n).data(), n, &cond));
    const double step = std::numbers::pi / (n + 1);
    EXPECT_NEAR(cond * (1 - std::cos(step)) / (1 - std::cos(n * step)), 1.0, 1e-9) << n;
  }
}

// A Householder reflection of a diagonal matrix has the diagonal for its spectrum.
TEST(PositiveDefinite, ReflectedSpectra) {
  const struct {
    const char* name;
    Matrix eigenvalues;
    bool definite;
    double cond;
  } cases[] = {{"equal", {3, 3, 3, 3}, true, 1},
               {"wide", {1e6, 1e3, 1, 1e-3}, true, 1e9},
               {"one negative", {2, 1, 5, -1}, false, 5},
               {"just above the limit", {1, 1, 1, 4e-14}, true, 2.5e13},
               {"below the limit", {1, 1, 1, 1e-14}, false, 1e14},
               {"order 3", {4, 1, 0.25}, true, 16}};
  for (const auto& [name, eigenvalues, definite, expected] : cases) {
    const int n = static_cast<int>(eigenvalues.size());
    // H = I - 2 u u'/(u'u), u = (1, 2, ..., n); A = H diag H
    double uu = 0.0;
    for (int i = 1; i <= n; ++i) uu += i * i;
    const auto H = [uu](int i, int j) { return (i == j) - 2.0 * (i + 1) * (j + 1) / uu; };
    Matrix A(at(n, 0, n));
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        for (int k = 0; k < n; ++k) A[at(i, j, n)] += H(i, k) * eigenvalues[at(0, k, n)] * H(k, j);
    double cond = 0.0;
    EXPECT_EQ(kdr::ispositivedefinite(n, A.data(), n, &cond), definite) << name;
    // a small eigenvalue carries the rounding of the large ones
    EXPECT_NEAR(cond / expected, 1.0, 1e-14 * std::fabs(expected) + 1e-12) << name;
  }
}

TEST(PositiveDefinite, EdgeCases) {
  const struct {
    int n;
    Matrix a;
    bool definite;
    double cond;
  } cases[] = {{1, {1}, true, 1},
               {1, {100}, true, 100},
               {1, {1e-36}, false, 1e-36},
               {1, {-2}, false, -2},
               {2, {0, 0, 0, 0}, false, 1e36},
               {2, {0, 0, 0, 3}, false, 1e36},
               {2, {nan, 0, 0, 1}, false, 1e36},
               {3, {1, nan, 0, nan, 1, 0, 0, 0, 1}, false, 1e36},
               {3, {1, 0, 0, 0, 2, 0, 0, 0, 8}, true, 8}};
  for (const auto& c : cases) {
    double cond = -5.0;
    EXPECT_EQ(kdr::ispositivedefinite(c.n, c.a.data(), c.n, &cond), c.definite) << c.n;
    EXPECT_EQ(cond, c.cond);
    EXPECT_EQ(kdr::ispositivedefinite(c.n, c.a.data(), c.n, nullptr), c.definite);
  }
  EXPECT_FALSE(kdr::ispositivedefinite(1, &nan, 1, nullptr));
}

}  // namespace
