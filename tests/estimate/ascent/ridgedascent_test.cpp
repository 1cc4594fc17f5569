// The steps of a ridged ascent.
#include "estimate/ascent/ridgedascent.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "estimate/laplace/laplacemodes.h"

namespace {

using namespace kdr;

Array<double> arrayof(const std::vector<double>& values) {
  Array<double> array(values.size());
  std::copy(values.begin(), values.end(), array.begin());
  return array;
}

// A point with score (0.128, 0.256) and information I, so that the first step is the score.
Evaluation unitinformation(const Array<double>&) {
  return {true, 0.0, arrayof({0.128, 0.256}), arrayof({1.0, 0.0, 0.0, 1.0}), {}, {}, {}};
}

TEST(RidgedAscent, HalvesUpToEightTrialsOfWhichTheLastIsAFailure) {
  for (const bool undefined : {false, true})
    for (int good = 1; good <= 9; ++good) {
      RidgedPolicy policy;
      policy.undefined = undefined ? Undefined::halve : Undefined::ridge;
      policy.freesteps = 1;
      int trials = 0, halvings = 0;
      RidgedProblem problem;
      problem.evaluate = unitinformation;
      problem.inside = [&](Array<double>&) { return undefined || ++trials == good; };
      problem.test = [&](const Array<double>&) {
        return Evaluation{!undefined || ++trials == good, 1.0, {}, {}, {}, {}, {}};
      };
      problem.tell = [&](AscentEvent event, const RidgedAscent&) { halvings += event == AscentEvent::stephalved; };
      RidgedAscent ascent{policy, problem, arrayof({4.0, 3.0})};
      EXPECT_EQ(climb(ascent, 1), good < 8 ? AscentEnd::limit : AscentEnd::nostep) << good;
      EXPECT_EQ(trials, std::min(good, 8));
      EXPECT_EQ(halvings, std::min(good - 1, 8));
      const double share = good == 9 ? 0.0 : std::ldexp(1.0, 1 - good);
      EXPECT_DOUBLE_EQ(ascent.now[0], 4.0 + 0.128 * share) << good;
      EXPECT_DOUBLE_EQ(ascent.now[1], 3.0 + 0.256 * share) << good;
    }
}

// The first step is halved, and so is the one behind a fall that is more than `fall`.
TEST(RidgedAscent, HalvesTheFirstStepAndTheOneBehindAFall) {
  RidgedPolicy policy;
  policy.halvefirst = true;
  policy.freesteps = 10;
  policy.fall = 0.5;
  const double values[] = {0.0, -0.4, -1.0, -0.9};
  int step = 0;
  RidgedProblem problem;
  problem.evaluate = unitinformation;
  problem.inside = [](Array<double>&) { return true; };
  problem.test = [&](const Array<double>&) { return Evaluation{true, values[step++], {}, {}, {}, {}, {}}; };
  RidgedAscent ascent{policy, problem, arrayof({0.0, 0.0})};
  double before = 0.0;
  for (const double share : {0.5, 1.0, 1.0, 0.5}) {
    EXPECT_EQ(climb(ascent, ascent.iterations + 1), AscentEnd::limit);
    EXPECT_DOUBLE_EQ(ascent.now[1] - before, 0.256 * share) << step;
    before = ascent.now[1];
  }
}

// As Laplace-6 of nodes that stand still does it: two steps may lower the value. Behind them a ridge grows until the
// value doesn't fall, and becomes smaller in the next iteration; without end there is no step.
TEST(RidgedAscent, TwoMayLowerTheValueAndTheThirdMayNot) {
  const LaplaceSettings settings;
  std::vector<double> values = {-1.0, -2.0, NAN, -3.0, -3.0, -2.0, -1.5};
  std::size_t tried = 0;
  int raised = 0, lowered = 0;
  RidgedProblem problem;
  problem.evaluate = unitinformation;
  problem.inside = [](Array<double>&) { return true; };
  problem.test = [&](const Array<double>&) {
    const double value = tried < values.size() ? values[tried] : -9.0;
    ++tried;
    return Evaluation{!std::isnan(value), value, {}, {}, {}, {}, {}};
  };
  problem.tell = [&](AscentEvent event, const RidgedAscent&) {
    raised += event == AscentEvent::ridgeraised;
    lowered += event == AscentEvent::ridgelowered;
  };
  RidgedAscent ascent{settings.ascent, problem, arrayof({0.0, 0.0})};
  double before = 0.0;
  // The diagonal of the information is 1; a ridge stands on top of those before it in the same iteration.
  for (const auto& [diagonal, ridge] : {std::pair(1.0, 0.0), {1.0, 0.0}, {1.0 + 0.1 + 1.0 + 10.0, 10.0}, {11.0, 1.0}}) {
    EXPECT_EQ(climb(ascent, ascent.iterations + 1), AscentEnd::limit);
    EXPECT_NEAR(ascent.now[1] - before, 0.256 / diagonal, 1e-15) << tried;
    EXPECT_DOUBLE_EQ(ascent.ridge.value, ridge) << tried;
    before = ascent.now[1];
  }
  EXPECT_EQ(ascent.value, -1.5);
  EXPECT_EQ(std::pair(raised, lowered), std::pair(3, 1));
  EXPECT_EQ(climb(ascent, 9), AscentEnd::notdefinite);
  EXPECT_EQ(ascent.now[1], before);
  EXPECT_EQ(ascent.iterations, 4);
  EXPECT_GT(ascent.ridge.value, 1e20);  // its ratio to the diagonal cannot grow: the ridges before are in that
}

TEST(Ridge, AddsUpAndHasTwoBounds) {
  RidgedPolicy policy;
  policy.firstridge = 0.1;
  double H[] = {2.0, 0.5, 0.5, 7.0};
  Ridge ridge;
  EXPECT_TRUE(ridge.addto(H, 2, policy));
  EXPECT_EQ(H[0], 2.0);
  ridge.raise(policy);
  EXPECT_TRUE(ridge.addto(H, 2, policy));
  ridge.raise(policy);
  EXPECT_TRUE(ridge.addto(H, 2, policy));
  EXPECT_DOUBLE_EQ(H[0], 13.0);
  EXPECT_DOUBLE_EQ(H[3], 18.0);
  EXPECT_EQ(H[1], 0.5);
  for (const auto& [value, largest, fits] : {std::tuple(1e6, 1.0, true),
                                             {1.1e6, 1.0, false},
                                             {1e20, 1e30, true},
                                             {1.1e20, 1e30, false},
                                             {1.0, 0.0, false}}) {
    double diagonal[] = {0.0, 0.0, 0.0, largest};
    ridge.value = value;
    EXPECT_EQ(ridge.addto(diagonal, 2, policy), fits) << value;
    EXPECT_EQ(diagonal[3], fits ? largest + value : largest);
  }
}

}  // namespace
