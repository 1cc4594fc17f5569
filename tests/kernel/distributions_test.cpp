#include "kernel/distributions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <string>
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

// Of tests/reference/distributions.py: degrees of freedom from 1 to 1e6, tails down to 1e-300.
TEST(Distributions, ExactTails) {
  std::ifstream file(TESTDATA "/tests/reference/distributions.txt");
  std::string name;
  double df = 0.0, df2 = 0.0, x = 0.0, p = 0.0;
  int lines = 0;
  for (; file >> name >> df >> df2 >> x >> p; ++lines) {
    const double got = name == "chi2" ? kdr::chisqprob(df, x)
                       : name == "t"  ? kdr::tprob(df, x)
                       : name == "f"  ? kdr::fprob(df, df2, x)
                                      : kdr::normalprob(x);
    EXPECT_NEAR(got / p, 1.0, 1e-11) << name << " " << df << " " << df2 << " " << x;
  }
  EXPECT_GT(lines, 150);
  for (const Quantile& q : quantiles()) {
    EXPECT_NEAR(kdr::tprob(q.df, -q.t), q.p, 1e-12);
    EXPECT_NEAR(kdr::chisqprob(q.df, q.x), q.p, 1e-12);
  }
}

TEST(Distributions, Ends) {
  const double none = std::nan(""), infinite = std::numeric_limits<double>::infinity();
  EXPECT_EQ(kdr::tprob(7, 0.0), 1.0);
  EXPECT_EQ(kdr::tprob(7, infinite), 0.0);
  EXPECT_EQ(kdr::chisqprob(3, -1.0), 1.0);
  EXPECT_EQ(kdr::chisqprob(3, 1e6), 0.0);
  EXPECT_EQ(kdr::fprob(3, 5, infinite), 0.0);
  for (const double p : {kdr::tprob(7, none), kdr::chisqprob(3, none), kdr::fprob(3, 5, none)})
    EXPECT_TRUE(std::isnan(p));
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
