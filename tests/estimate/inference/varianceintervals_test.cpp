// Fisher's z against the delta method by differences.
#include "estimate/inference/varianceintervals.h"

#include <gtest/gtest.h>

#include <cmath>

#include "kernel/sizes.h"

namespace {

using namespace kdr;

TEST(VarianceIntervals, CorrelationIsSymmetricInFishersZ) {
  Estimates est;
  est.taupi.reset(4);
  est.taubeta.reset(1);
  const double T[] = {2.0, 0.5, 0.8}, C[3][3] = {{.30, .05, .02}, {.05, .08, .01}, {.02, .01, .06}};
  est.taupi[0] = T[0];
  est.taupi[1] = est.taupi[2] = T[1];
  est.taupi[3] = T[2];
  est.sigma2 = 1.0;
  TauErrors errors;
  errors.known = true;
  errors.order = 4;
  errors.covariance.reset(16);
  errors.taupi.reset(4);
  errors.taubeta.reset(1);
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j) errors.covariance[i * 4 + j] = C[i][j];
  errors.taupi[0] = std::sqrt(C[0][0]);
  errors.taupi[1] = errors.taupi[2] = std::sqrt(C[1][1]);
  errors.taupi[3] = std::sqrt(C[2][2]);
  const VarianceIntervals made = varianceintervals(est, errors, 2, 1);
  const auto z = [](const double* t) { return std::atanh(t[1] / std::sqrt(t[0] * t[2])); };
  double gradient[3];
  for (int i = 0; i < 3; ++i) {
    double up[] = {T[0], T[1], T[2]}, down[] = {T[0], T[1], T[2]};
    up[i] += 1e-5;
    down[i] -= 1e-5;
    gradient[i] = (z(up) - z(down)) / 2e-5;
  }
  double variance = 0;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) variance += gradient[i] * C[i][j] * gradient[j];
  ASSERT_TRUE(made.correlations2[0].known);
  EXPECT_NEAR(made.correlations2[0].low, std::tanh(z(T) - 1.959963985 * std::sqrt(variance)), 1e-8);
  EXPECT_NEAR(made.correlations2[0].high, std::tanh(z(T) + 1.959963985 * std::sqrt(variance)), 1e-8);
  EXPECT_FALSE(made.level3[0].known);  // held: no standard error
}

}  // namespace
