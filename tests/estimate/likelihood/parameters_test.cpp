// The steps of the maximum-likelihood engines in the space of the parameters.
#include "estimate/likelihood/parameters.h"

#include <gtest/gtest.h>

#include "estimate/likelihood/madestudy.h"

namespace {

using namespace madestudy;

TEST(TrialStep, HalvesUpToEightTrialsOfWhichTheLastIsAFailure) {
  const std::vector<double> start{4.0, 1.0, 3.0, 2.0, 0.5}, step{0.128, 0.256, -0.128, 1.28, 12.8};
  for (int good = 1; good <= 9; ++good) {
    Parameters parameters = makeparameters(2, 1, start);
    std::vector<double> delta = step;
    int trials = 0, halvings = 0;
    const bool kept = trialstep(
        parameters, delta.data(),
        [&](Parameters& trial) {
          EXPECT_EQ(trial.taupi[1], trial.taupi[2]);
          return ++trials == good;
        },
        [&] { ++halvings; });
    EXPECT_EQ(kept, good < 8) << good;
    EXPECT_EQ(trials, std::min(good, 8));
    EXPECT_EQ(halvings, std::min(good - 1, 8));
    const std::vector<double> found = elements(parameters);
    for (std::size_t i = 0; i < start.size(); ++i)
      EXPECT_DOUBLE_EQ(found[i], good == 9 ? start[i] : start[i] + std::ldexp(step[i], 1 - good)) << good;
  }
}

TEST(Ridge, AddsUpAndHasTwoBounds) {
  double H[] = {2.0, 0.5, 0.5, 7.0};
  Ridge ridge;
  EXPECT_TRUE(ridge.addto(H, 2));
  EXPECT_EQ(H[0], 2.0);
  ridge.raise(0.1);
  EXPECT_TRUE(ridge.addto(H, 2));
  ridge.raise(0.1);
  EXPECT_TRUE(ridge.addto(H, 2));
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
    EXPECT_EQ(ridge.addto(diagonal, 2), fits) << value;
    EXPECT_EQ(diagonal[3], fits ? largest + value : largest);
  }
}

}  // namespace
