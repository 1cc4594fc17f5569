#include "estimate/inference/degreesoffreedom.h"

#include <gtest/gtest.h>

#include "driver/runrecord.h"
#include "report/reportfixture.h"

namespace kdr {
namespace {

// The reasoning. An effect that varies over the K level-3 units is estimated from K unit values: K less the terms of
// its own equation. One that varies over the J level-2 units only has J values, of which each coefficient random at
// level 3 takes K and each further effect of this kind one. One that varies over the N records only loses J for each
// random level-1 coefficient, K for each random level-2 coefficient and one for each effect of its own kind.
TEST(Degrees, ByHand) {
  const TestCoefficient plain{0, true, {{0, {0}}}}, predictor2{0, true, {{0, {0}}, {1, {0}, false}}},
      predictor3{0, true, {{0, {0, 1}}}}, slope{2, true, {{0, {0}}}}, fixedslope{2, false, {{0, {0}, false}}},
      slope3{2, false, {{0, {0}}}};
  const struct {
    const char* what;
    std::vector<TestCoefficient> model;
    std::vector<int> df;
    int rough = -1;  // the effect whose degrees of freedom are rough
    int records = 1000, units2 = 100;
    std::vector<int> constraints = {};
  } cases[] = {
      {"intercept alone: 20 - 1", {plain}, {19}},
      {"a level-3 predictor: 20 - 2", {predictor3}, {18, 18}},
      {"a fixed level-2 predictor: 100 - 20 * 1 - 1", {predictor2}, {19, 79}},
      {"a fixed slope: 1000 - 1 * 100 - 1 * 20 - 1", {plain, fixedslope}, {19, 879}},
      {"a slope fixed at level 2 but random at level 3 is tested over 20 units, and its variation does not touch the "
       "level-2 effects: 100 - 20 * 1 - 1",
       {predictor2, slope3},
       {19, 79, 19}},
      {"two level-2 units in most level-3 units, two random coefficients: 41 - 20 * 2 - 1 is below 1, so roughly 41 - "
       "1",
       {predictor2, slope},
       {19, 40, 19},
       1,
       1000,
       41},
      {"few records: 121 - 100 - 20 - 1 is below 1, so roughly 121 - 20 - 1", {plain, fixedslope}, {19, 100}, 1, 121},
      // The second gamma of the intercept's only level-2 coefficient is gone: one degree back for the intercept.
      {"a constraint within a coefficient: 20 - 2 + 1", {predictor3, slope}, {19, 19}, -1, 1000, 100, {1, -1, 0}},
      // The removed gamma belongs to B00, but B01 is the last level-2 coefficient of the intercept: nothing comes back.
      {"a constraint on a level-2 coefficient that is not the last",
       {{0, true, {{0, {0, 1}}, {1, {0}}}}},
       {18, 19},
       -1,
       1000,
       100,
       {1, -1, 0}},
  };
  for (const auto& c : cases) {
    startmodel({"Y", "X"}, {"W"}, {"V"});
    setmodel(c.model);
    if (!c.constraints.empty()) setconstraints(c.constraints);
    run.mdm.nunits1 = run.mdm.numl1rec = c.records;
    run.mdm.nunits2 = c.units2;
    const FixedDegrees degrees = degreesoffreedom(modelrows(run.model), countsof(run.mdm));
    const auto n = static_cast<std::size_t>(run.model.coef.ngamma);
    ASSERT_EQ(n, c.df.size());
    ASSERT_EQ(degrees.df.size(), n + static_cast<std::size_t>(run.model.nconstrained));
    for (std::size_t g = 0; g < n; ++g) {
      EXPECT_EQ(degrees.df[g], c.df[g]) << c.what << ", gamma " << g;
      EXPECT_EQ(degrees.rough[g], c.rough == static_cast<int>(g)) << c.what << ", gamma " << g;
    }
  }
}

// Deletion of records has left fewer than the random coefficients take: the MDM's own count stands in for them.
TEST(DegreesAfterDeletion, FallBackOnTheFileCount) {
  startmodel({"Y", "X"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}, {2, false, {{0, {0}, false}}}});
  run.mdm.nunits1 = 21;
  run.mdm.numl1rec = 300;
  const FixedDegrees degrees = degreesoffreedom(modelrows(run.model), countsof(run.mdm));
  EXPECT_EQ(degrees.df[1], 300 - 20 - 1);
  EXPECT_EQ(degrees.rough[1], 1);
}

}  // namespace
}  // namespace kdr
