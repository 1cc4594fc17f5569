// The ascent where evaluations have an information that only stands for the exact one.
#include "estimate/ascent/ascent.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace kdr;

Array<double> list(std::initializer_list<double> values) {
  Array<double> array(values.size());
  std::copy(values.begin(), values.end(), array.begin());
  return array;
}

// f(x, y) = -(x - 1)^2 / 2 + a y^2 / 2 - y^4 / 4: a maximum at y = 0 for a < 0, else a saddle there and maxima at
// y^2 = a. Steps take diag(1, curvature) in the place of its information.
struct Made {
  double a, curvature;
  int exacts = 0;
  AscentProblem problem;
  AscentResult result;

  Made(double second, double standin, double x, double y) : a(second), curvature(standin) {
    problem.count = 2;
    problem.evaluate = [this](const Array<double>& p, Approach) {
      return Evaluation{true,
                        -0.5 * (p[0] - 1.0) * (p[0] - 1.0) + 0.5 * a * p[1] * p[1] - 0.25 * std::pow(p[1], 4),
                        list({1.0 - p[0], a * p[1] - std::pow(p[1], 3)}),
                        list({1.0, 0.0, 0.0, curvature}),
                        list({1.0, 1.0}),
                        list({10.0, 10.0}),
                        list({0.5, 0.5})};
    };
    problem.accepted = [] {};
    problem.exact = [this](const Array<double>& p, const Evaluation&) {
      ++exacts;
      Evaluation there = problem.evaluate(p, Approach::carried);
      there.information[3] = 3.0 * p[1] * p[1] - a;
      return there;
    };
    result = climb(problem, {}, list({x, y}), Approach::modes);
  }
};

TEST(Ascent, StandInThatIsTooSmallOrTooLarge) {
  for (const double standin : {0.3, 20.0}) {
    const Made made(-1.0, standin, 3.0, 0.7);
    ASSERT_EQ(made.result.end, AscentEnd::converged) << standin;
    EXPECT_LE(made.result.iterations, 8) << standin;
    EXPECT_NEAR(made.result.point[1], 0.0, 1e-3) << standin;
    EXPECT_TRUE(made.result.exact);
    EXPECT_NEAR(made.result.there.information[3], 1.0, 1e-4) << standin;
  }
}

// A maximum that the stand-in takes for a saddle is the end, and a saddle that it takes for a maximum is left.
TEST(Ascent, TheExactInformationTellsMaximaFromSaddles) {
  const Made maximum(-1.0, -0.5, 3.0, 0.0);
  EXPECT_EQ(maximum.result.end, AscentEnd::converged);
  EXPECT_LE(maximum.result.iterations, 3);
  const Made saddle(0.49, 1.0, 3.0, 0.0);
  EXPECT_EQ(saddle.result.end, AscentEnd::converged);
  EXPECT_NEAR(std::fabs(saddle.result.point[1]), 0.7, 1e-3);
  // Without an information the ascent has no end.
  Made none(-1.0, 1.0, 3.0, 0.5);
  none.problem.exact = [](const Array<double>&, const Evaluation&) { return Evaluation{}; };
  const AscentResult result = climb(none.problem, {}, list({3.0, 0.5}), Approach::modes);
  EXPECT_NE(result.end, AscentEnd::converged);
  EXPECT_FALSE(result.exact);
}

}  // namespace
