// Moments of the variates against those of their distributions, within five standard errors of a mean of many.
#include "estimate/bootstrap/generator.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace kdr;

template <class Draw>
void expectmoments(Draw draw, double mean, double variance, double fourth, const char* what) {
  constexpr int n = 200000;
  double sum = 0, squares = 0;
  Generator random(11, 5);
  for (int i = 0; i < n; ++i) {
    const double x = draw(random) - mean;
    sum += x;
    squares += x * x;
  }
  EXPECT_NEAR(sum / n, 0.0, 5 * std::sqrt(variance / n)) << what;
  EXPECT_NEAR(squares / n, variance, 5 * std::sqrt((fourth - variance * variance) / n)) << what;
}

TEST(Generator, VariatesHaveTheirMoments) {
  expectmoments([](Generator& r) { return r.uniform(); }, 0.5, 1.0 / 12, 1.0 / 80, "uniform");
  expectmoments([](Generator& r) { return r.normal(); }, 0, 1, 3, "normal");
  for (const double k : {0.3, 1.0, 7.5})
    expectmoments([k](Generator& r) { return r.gamma(k); }, k, k, 3 * k * k + 6 * k, "gamma");
  for (const double m : {0.4, 12.0, 80.0, 3000.0})
    expectmoments([m](Generator& r) { return r.poisson(m); }, m, m, m * (1 + 3 * m), "poisson");
  for (const double n : {1.0, 40.0, 1000.0})
    for (const double p : {0.03, 0.6}) {
      const double v = n * p * (1 - p);
      expectmoments([=](Generator& r) { return r.binomial(n, p); }, n * p, v, v * (1 + 3 * (n - 2) * p * (1 - p)),
                    "binomial");
    }
  expectmoments([](Generator& r) { return static_cast<double>(r.below(7)); }, 3, 4, 28, "below");
}

TEST(Generator, StreamsFollowFromSeedAndReplicate) {
  EXPECT_EQ(Generator(1, 2).bits(), Generator(1, 2).bits());
  EXPECT_NE(Generator(1, 2).bits(), Generator(1, 3).bits());
  EXPECT_NE(Generator(1, 2).bits(), Generator(2, 2).bits());
  EXPECT_NE(Generator(1, 2).bits(), Generator(2, 1).bits());
}

}  // namespace
