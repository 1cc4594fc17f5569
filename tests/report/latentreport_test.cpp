// What a latent variable regression says where numbers are missing.
#include "report/latentreport.h"

#include <gtest/gtest.h>

#include <limits>

#include "driver/runrecord.h"
#include "report/reportfixture.h"
#include "series/latentregression.h"

namespace kdr {
namespace {

TEST(LatentReport, WithoutVariancesOrDegreesOfFreedom) {
  // P0 = B00 + r0, P1 = B10 + r1; B00 on W, B10 on W and LONGNAME, both random at level 3; B10 is the outcome.
  startmodel({"MATH", "TIME"}, {}, {"W", "LONGNAME"});
  setmodel({{0, true, {{0, {1}}}}, {2, true, {{0, {1, 2}}}}});
  run.model.coef.pinames.reset(2);
  for (std::size_t i = 0; i < 2; ++i) run.model.coef.pinames[i] = run.model.coef.betanames1[i];
  LatentRegression regression;
  regression.computable = true;
  regression.outcomes = {1};
  regression.predictors = {0};
  regression.terms = {1, 2};
  regression.GO = arrayof({3.0, 4.0});
  regression.Gadj = arrayof({1.0, 1.0});
  regression.R = arrayof({2.25});
  constexpr double none = std::numeric_limits<double>::quiet_NaN();
  regression.adjusted = {{1.0, 0.5, 2.0, none}, {1.0, none, none, none}};
  regression.slopes = {{0.5, 0.2, 2.5, none}};
  regression.differences = {{2.0, 0.1, 20.0, none}, {3.0, 0.1, 30.0, none}};
  const auto printed = [&] { return capturedtable(false, [&] { latentreport(regression); }); };
  EXPECT_NE(printed().find("W,G100*     1.000000    0.50000    2.000     NC\n"), std::string::npos) << printed();
  EXPECT_NE(printed().find("LONGNAME,G101*     1.000000         NC       NC     NC\n"), std::string::npos);
  regression = {};
  EXPECT_EQ(printed(), "Unable to compute latent variable regression.\n");
}

}  // namespace
}  // namespace kdr
