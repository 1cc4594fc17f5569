#include "estimate/inference/smallsample.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace kdr;

// One variance component of variance 1 and effects without covariance: with Phi = diag(1, 2), P = diag(a, b) an effect
// alone has 2 / a^2 and 1 / (2 b^2) degrees of freedom. Two together: E = sum of nu / (nu - 2), 2 E / (E - 2).
double together(double first, double second) {
  VarianceUncertainty known;
  known.g = 2;
  known.NT = 1;
  known.Phi.reset(4);
  known.Phi[0] = 1.0;
  known.Phi[3] = 2.0;
  known.P.reset(1, 4);
  known.P.row(0)[0] = std::sqrt(2.0 / first);
  known.P.row(0)[3] = std::sqrt(0.5 / second);
  known.W.reset(1);
  known.W[0] = 1.0;
  const double L[] = {1.0, 0.0, 0.0, 1.0};
  EXPECT_NEAR(satterthwaite(known, L), first, 1e-12 * first);
  EXPECT_NEAR(satterthwaite(known, L + 2), second, 1e-12 * second);
  return faicornelius(known, L, 2).df;
}

// 6 and 10: E = 6/4 + 10/8. Where one has 2 or less, its F has no mean, and the test has 2.
TEST(FaiCornelius, ByHand) {
  EXPECT_NEAR(together(6.0, 10.0), 5.5 / 0.75, 1e-10);
  EXPECT_NEAR(together(6.0, 6.0), 6.0, 1e-10);
  EXPECT_EQ(together(1.5, 10.0), 2.0);
  EXPECT_EQ(together(10.0, 2.0 - 1e-9), 2.0);
}

}  // namespace
