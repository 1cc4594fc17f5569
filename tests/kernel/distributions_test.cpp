#include "kernel/distributions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <vector>

namespace {

// Quantiles of the exact distributions, from tests/reference/kernel_distributions.R (R).
struct Quantile {
  int df;
  double p, t, x;
};

std::vector<Quantile> quantiles() {
  std::ifstream file(TESTDATA "/tests/reference/kernel_distributions.txt");
  std::vector<Quantile> all;
  for (Quantile q; file >> q.df >> q.p >> q.t >> q.x;) all.push_back(q);
  return all;
}

// How far the p-values of a report are from the exact distributions, df 1 to 200, p 0.001 to 0.5.
TEST(Distributions, DistanceFromTheExactPValues) {
  const std::vector<Quantile> all = quantiles();
  ASSERT_EQ(all.size(), 1088u);
  double worstt = 0.0, worstchi = 0.0, worstchi5 = 0.0;
  for (const Quantile& q : all) {
    const double error = std::fabs(kdr::tprob(q.df, q.t) - q.p);
    EXPECT_EQ(kdr::tprob(q.df, -q.t), kdr::tprob(q.df, q.t));
    worstt = std::max(worstt, error);
    if (q.x < q.df) continue;  // shown as ">.500"
    const double errorchi = std::fabs(kdr::chisqprob(q.df, q.x) - q.p);
    worstchi = std::max(worstchi, errorchi);
    if (q.df >= 5) worstchi5 = std::max(worstchi5, errorchi);
  }
  // Observed: 2.9e-11 for t, from its ten-digit pi; 4.1e-3 for chi-square, at df 1 and p 0.1; 1.08e-3 from df 5 on.
  EXPECT_LT(worstt, 3e-11);
  EXPECT_LT(worstchi, 4.2e-3);
  EXPECT_LT(worstchi5, 1.1e-3);
}

TEST(Tprob, EdgeCases) {
  EXPECT_NEAR(kdr::tprob(1, 1.0), 0.5, 1e-10);
  EXPECT_EQ(kdr::tprob(2, 0.0), 1.0);
  EXPECT_NEAR(kdr::tprob(2, std::sqrt(2.0)), 1 - std::sqrt(0.5), 1e-15);  // t / sqrt(t^2 + 2) = sqrt(1/2)
  for (const int df : {3, 4, 7, 1000, 1001}) {
    EXPECT_EQ(kdr::tprob(df, 0.0), 1.0) << df;
    EXPECT_NEAR(kdr::tprob(df, 1e10), 0.0, 1e-9) << df;
  }
  EXPECT_NEAR(kdr::tprob(1000000, 1.959963984540054), 0.05, 1e-6);  // the normal limit
  EXPECT_NEAR(kdr::tprob(1000001, 1.959963984540054), 0.05, 1e-6);
}

TEST(Tcritical, IsTheQuantileRoundedUpToAThousandth) {
  for (const Quantile& q : quantiles())
    if (q.p == 0.05 && q.df >= 6) {
      EXPECT_GE(kdr::tcritical(q.df), q.t) << q.df;
      EXPECT_LT(kdr::tcritical(q.df) - 0.001, q.t) << q.df;
    }
  const struct {
    int df;
    double point;
  } cases[] = {{1, 12.7062}, {2, 4.303}, {3, 3.182}, {4, 2.776}, {5, 2.571}, {6, 2.447}, {2500, 1.961}, {2501, 1.96}};
  for (const auto& [df, point] : cases) EXPECT_EQ(kdr::tcritical(df), point) << df;
}

// The cube-root transform with the exponent 0.3333 and the four-term polynomial, evaluated in R; at df 2 and x 2, z is
// 1/3.
TEST(Chisqprob, FormulaInR) {
  EXPECT_NEAR(kdr::chisqprob(2, 2.0), 0.369329292519587, 1e-14);
  EXPECT_NEAR(kdr::chisqprob(1, 8.0), 0.00493587353550854, 1e-14);
  EXPECT_NEAR(kdr::chisqprob(4, 1.0), 0.0911642065411048, 1e-14);
  EXPECT_NEAR(kdr::chisqprob(10, 25.0), 0.00561402406838384, 1e-14);
}

TEST(Chisqprob, IsMirroredBelowItsDegreesOfFreedom) {
  EXPECT_NEAR(kdr::chisqprob(1, 3.84), 0.05, 0.003);
  EXPECT_LT(kdr::chisqprob(4, 0.001), 0.5);
  for (const int df : {1, 2, 5, 50})
    for (double x = 0.0; x < 3.0 * df; x += 0.1 * df) EXPECT_LE(kdr::chisqprob(df, x), 0.5);
  EXPECT_EQ(kdr::chisqprob(3, 1e6), 0.0);
}

TEST(Factorial, Values) {
  const struct {
    int n;
    double value;
  } cases[] = {{-1, 1}, {0, 1}, {1, 1}, {2, 2}, {5, 120}, {20, 2432902008176640000.0}, {170, 7.257415615307994e306}};
  for (const auto& [n, value] : cases) EXPECT_DOUBLE_EQ(kdr::factorial(n) / value, 1.0) << n;
  EXPECT_TRUE(std::isinf(kdr::factorial(171)));
  EXPECT_TRUE(std::isinf(kdr::factorial(2147483647)));
}

TEST(Logfactorial, Values) {
  // log Gamma(x + 1) by scipy.special.gammaln
  const struct {
    double x, value;
  } cases[] = {{0, 0},
               {1, 0},
               {4, 3.1780538303479458},
               {4.9, 3.1780538303479458},  // below 65 the fraction is dropped
               {64, 205.16819948264120},
               {65, 209.34258675253682},
               {66.5, 215.63272214993287},
               {100, 363.73937555556347},
               {1000, 5912.128178488164},
               {1e6, 12815518.384658169}};
  for (const auto& [x, value] : cases) EXPECT_NEAR(kdr::logfactorial(x), value, 1e-10 * (1 + value * 1e-3)) << x;
}

}  // namespace
