// The outcome types by their definitions, and the test of the macro iterations.
#include "estimate/quasi/family.h"

#include <gtest/gtest.h>

#include <cmath>

#include "estimate/laplace/laplacestudy.h"
#include "estimate/quasi/macrotest.h"
#include "estimate/quasi/marginal.h"
#include "kernel/sizes.h"

namespace {

using namespace kdr;

TEST(Family, CumulantsAreTheDerivativesOfTheLogPartition) {
  for (const double eta : {-6.0, -1.3, 0.0, 0.4, 2.0, 9.0}) {
    const LogitMean mean = logitmean(eta);
    const LogitCumulants k = logitcumulants(mean.mu, mean.variance);
    const auto wanted = laplacestudy::softplus(eta);
    EXPECT_NEAR(std::max(eta, 0.0) + std::log1p(mean.small), wanted[0], 1e-15 * std::max(1.0, wanted[0]));
    const double found[] = {mean.mu, k.k2, k.k3, k.k4, k.k5, k.k6, k.k7};
    for (int order = 1; order <= 7; ++order)
      EXPECT_NEAR(found[order - 1], wanted[kdr::at(order)], 1e-13) << "order " << order << " at " << eta;
  }
  const LogitMean half = logitmean(0.0);
  EXPECT_EQ(logitcumulants(half.mu, half.variance).k3, 0.0);
  for (const double eta : {-800.0, 800.0}) EXPECT_TRUE(std::isfinite(logitmean(eta).variance));
  EXPECT_DOUBLE_EQ(logitmean(-50.0).mu, 1.9287498479639178e-22);  // exp(-50)
}

TEST(Family, WorkingValuesKeepTheLimits) {
  struct Case {
    const char* what;
    Linked record;
    double y, n, weight, z;
  };
  const Case cases[] = {
      {"fitted mean above 1", linkedfitted(Link::logit, 1.2), 1, 1, 0.0099, std::log(99.0) + 0.01 / 0.0099},
      {"fitted mean below 0", linkedfitted(Link::logit, -3), 0, 1, 0.0099, -std::log(99.0) - 0.01 / 0.0099},
      {"fitted mean, trials", linkedfitted(Link::logit, 0.5), 3, 4, 1.0, 1.0},
      {"fitted count below 0", linkedfitted(Link::log, -1), 2, 1, 0.001, std::log(0.001) + 1.999 / 0.001},
      {"logit", linked(Link::logit, 0.0), 1, 1, 0.25, 2.0},
      {"log, exposure", linked(Link::log, std::log(2.0)), 5, 3, 6.0, std::log(2.0) - 1.0 / 6},
      {"capped", linkedcapped(10.0, 4.0), 2, 1, 4.0, std::log(4.0) - 0.5},
      {"not capped", linkedcapped(0.0, 4.0), 2, 1, 1.0, 1.0},
      {"heavy", linked(Link::log, std::log(2e6)), 1e6, 1, 999999.0, std::log(2e6) - 0.5},
  };
  for (const Case& one : cases) {
    const Working working = workingvalues(one.record, one.y, one.n);
    EXPECT_NEAR(working.weight, one.weight, 1e-9 * one.weight) << one.what;
    EXPECT_NEAR(working.z, one.z, 1e-9 * std::max(1.0, std::fabs(one.z))) << one.what;
  }
  EXPECT_TRUE(strayed(60.1) && strayed(-60.1) && !strayed(60.0) && !strayed(-60.0));
  EXPECT_EQ(broughtback(61.0), 2.0);
  EXPECT_EQ(broughtback(-61.0), -2.0);
}

TEST(MacroTest, CountsWhatHasChanged) {
  const auto made = [](double taupi, double taubeta, double gamma) {
    Parameters x{1, 1, 1, Array<double>(1), Array<double>(1), Array<double>(1)};
    x.taupi[0] = taupi;
    x.taubeta[0] = taubeta;
    x.gamma[0] = gamma;
    return x;
  };
  struct Case {
    const char* what;
    double now[3], previous[3], stop;
    bool settled;
    double errors[3] = {0, 0, 0};
  };
  const Case cases[] = {
      {"nothing moved", {1, 1, 1}, {1, 1, 1}, 1e-4, true},
      {"at the limit", {1, 1, 1.5}, {1, 1, 1}, 0.5, true},
      {"gamma moved", {1, 1, 1.001}, {1, 1, 1}, 1e-4, false},
      {"gamma moved down, negative", {1, 1, -1.001}, {1, 1, -1}, 1e-4, false},
      {"gamma left 0", {1, 1, 5}, {1, 1, 0}, 1e-4, true},
      {"gamma came to 0", {1, 1, 0}, {1, 1, 5}, 1e-4, false},
      {"taupi came to 0", {0, 1, 1}, {5, 1, 1}, 1e-4, true},
      {"taupi left 0", {5, 1, 1}, {0, 1, 1}, 1e-4, false},
      {"taubeta moved", {1, 1.001, 1}, {1, 1, 1}, 1e-4, false},
      {"below the least change", {1, 1, 1}, {1, 1, 1}, 1e-9, false},
      {"not a number", {1, 1, NAN}, {1, 1, 1}, 1e-4, false},
      {"a variance on its way to 0", {1e-7, 1, 1}, {2e-7, 1, 1}, 1e-4, true, {0.01, 0, 0}},
      {"a larger step near 0", {1e-5, 1, 1}, {2e-5, 1, 1}, 1e-4, false, {0.01, 0, 0}},
      {"gamma near 0", {1, 1, 1e-6}, {1, 1, -1e-6}, 1e-4, true, {0, 0, 0.1}},
      {"gamma left 0 far", {1, 1, 5}, {1, 1, 0}, 1e-4, false, {0, 0, 0.1}},
  };
  for (const Case& one : cases)
    EXPECT_EQ(
        macrotest(made(one.now[0], one.now[1], one.now[2]), made(one.previous[0], one.previous[1], one.previous[2]),
                  made(one.errors[0], one.errors[1], one.errors[2]), one.stop),
        one.settled)
        << one.what;
  // Both triangles hold the same; the lower one is looked at.
  Parameters a{2, 1, 1, Array<double>(4), Array<double>(1), Array<double>(1)}, b = a.copy();
  a.taupi[2] = a.taupi[1] = 1.1;
  b.taupi[2] = b.taupi[1] = 1.0;
  EXPECT_FALSE(macrotest(a, b, {2, 1, 1, Array<double>(4), Array<double>(1), Array<double>(1)}, 1e-4));
}

// Against the mean probability by integration (tests/reference/marginalresponse.py), whatever the number of effects at
// either level that the variance is spread over.
TEST(Marginal, PredictorIsThatOfTheMeanResponse) {
  const double cases[][3] = {{-2, .25, .1290065364}, {-2, 1, .1554625185}, {-2, 4, .2247997546}, {.5, .25, .6159760511},
                             {.5, 4, .5752425317},   {1, 1, .6967346701},  {1, 2, .6750567023},  {1, 4, .6477264385},
                             {3, .25, .9473300460},  {3, 2, .9086410100},  {3, 4, .8704057991}};
  const double ones[] = {1, 1, 1};
  for (const auto& [eta, variance, mean] : cases)
    for (int q = 1; q <= 3; ++q)
      for (int r = 1; r <= 2; ++r)
        for (const double share : {0.0, 0.5, 1.0}) {  // of level 2
          Array<double> T(at(q * q)), L(at(r * r));
          for (int i = 0; i < q; ++i) T[at(i * q + i)] = share * variance / q;
          for (int i = 0; i < r; ++i) L[at(i * r + i)] = (1.0 - share) * variance / r;
          const double logit = marginalpredictor({Link::logit, q, r, T.data(), L.data()}, ones, ones, eta);
          EXPECT_NEAR(1.0 / (1.0 + std::exp(-logit)), mean, 0.01) << eta << " " << variance << " q " << q;
          const double log = marginalpredictor({Link::log, q, r, T.data(), L.data()}, ones, ones, eta);
          EXPECT_NEAR(log, eta + 0.5 * variance, 1e-14);
        }
}

}  // namespace
