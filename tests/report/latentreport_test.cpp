// What a latent variable regression says where numbers are missing.
#include "report/latentreport.h"

#include <gtest/gtest.h>

#include "core/constants.h"
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
  regression.df = 0;
  regression.b = arrayof({0.5});
  regression.GO = arrayof({3.0, 4.0});
  regression.Gadj = arrayof({1.0, 1.0});
  regression.Vadj = arrayof({0.25, 0.0, 0.0, 0.25});
  regression.Vdiff = arrayof({0.01, 0.0, 0.0, 0.01});
  regression.R = arrayof({2.25});
  regression.Vb = arrayof({0.04});
  const auto printed = [&] { return capturedtable(false, [&] { latentreport(regression); }); };
  EXPECT_NE(printed().find("W,G100*     1.000000    0.50000    2.000     NC\n"), std::string::npos) << printed();
  regression.df = 17;
  regression.Vb[0] = regression.Vadj[0] = missingcode;
  regression.Vadj[3] = 0.0;
  EXPECT_NE(printed().find("W,G100*     1.000000         NC       NC     NC\n"), std::string::npos) << printed();
  EXPECT_NE(printed().find("LONGNAME,G101*     1.000000    0.00000       NC     NC\n"), std::string::npos);
  regression = {};
  EXPECT_EQ(printed(), "Unable to compute latent variable regression.\n");
}

}  // namespace
}  // namespace kdr
