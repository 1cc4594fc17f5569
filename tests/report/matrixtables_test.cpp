#include "report/matrixtables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>

#include "driver/runrecord.h"
#include "estimate/inference/teststatistics.h"
#include "report/variancetables.h"
#include "reportfixture.h"

namespace kdr {
namespace {

// Random intercept and slope, each with its own level-2 equation.
void twobytwo() {
  startmodel({"MATH", "SES"}, {"SIZE"}, {});
  setmodel({{0, true, {{0, {0}}}}, {2, true, {{0, {0}}}}});
}

TEST(TauTable, TitlesOfOtherMatrices) {
  const struct {
    MatrixTitle kind;
    const char* text;
    const char* html;
  } cases[] = {{MatrixTitle::renewed, "New tau(pi)(0)\n", "New %s<sub><small><i>(0)</i></small></sub><br>\n"},
               {MatrixTitle::average, "Average tau(pi)\n", "Average %s<br>\n"},
               {MatrixTitle::weightedaverage, "Weighted average tau(pi)\n", "Weighted average %s<br>\n"}};
  twobytwo();
  const double matrix[4] = {1.5, -0.25, -0.25, absent};
  for (const auto& c : cases) {
    const auto write = [&] { tautable(Tau::pi, c.kind, true, 2, matrix); };
    EXPECT_EQ(
        capturedtable(false, write),
        std::string(c.text) + " INTRCPT1,P0      1.50000      -0.25000 \n      SES,P1     -0.25000            NC \n\n");
    std::string title = c.html;
    title.replace(title.find("%s"), 2, "&tau;<sub><small>&pi;</small></sub>");
    EXPECT_TRUE(capturedtable(true, write).starts_with(title + "<table")) << title;
  }
}

// Seven random level-2 coefficients: columns 1 to 6, then column 7 under a heading of its own.
TEST(TauBetaTable, OrderSevenTakesTwoBlocks) {
  startmodel({"Y"}, {"A", "B", "C", "D", "E", "F"}, {});
  setmodel({{0, true, {{0, {0}}, {1, {0}}, {2, {0}}, {3, {0}}, {4, {0}}, {5, {0}}, {6, {0}}}}});
  double matrix[49] = {};
  for (int i = 0; i < 49; ++i) matrix[i] = i % 8 == 0 ? 1.0 : 0.0;
  matrix[6] = -12.5;
  const std::string text =
      capturedtable(false, [&] { tautable(Tau::beta, MatrixTitle::standarderror, false, 7, matrix); });
  const std::string rest = "    0.00000  ";
  std::string expected = "Standard errors of tau(beta)\n";
  for (int i = 0; i < 6; ++i) expected += " INTRCPT1    ";
  expected += "\n INTRCPT2,B00        A,B01        B,B02        C,B03        D,B04        E,B05\n";
  for (int i = 0; i < 7; ++i) {
    for (int j = 0; j < 6; ++j) expected += i == j ? "    1.00000  " : rest;
    expected += "\n";
  }
  expected += "\nStandard errors of tau(beta)\n INTRCPT1    \n        F,B06\n  -12.50000  \n";
  for (int i = 1; i < 6; ++i) expected += rest + "\n";
  expected += "    1.00000  \n\n";
  EXPECT_EQ(text, expected);
}

TEST(CorrelationTable, NoneWithACoefficientWithoutVariance) {
  twobytwo();
  const double flat[4] = {4, 0, 0, 0}, one = 1;
  EXPECT_EQ(capturedtable(false, [&] { correlationtable(Tau::beta, 2, flat); }),
            "tau(beta) (as correlations)\n INTRCPT1/INTRCPT2,B00  1.000     NC\n"
            "      SES/INTRCPT2,B10     NC     NC\n\n");
  EXPECT_EQ(capturedtable(false, [&] { correlationtable(Tau::pi, 1, &one); }), "");
}

TEST(VarianceTable, TooFewDegreesOfFreedomAndNoNumber) {
  twobytwo();
  const VarianceTest tests[] = {variancetest(20, std::numeric_limits<double>::quiet_NaN()), variancetest(0, 50)};
  Array<double> tau(4);
  std::copy_n(std::array{4.0, 1.0, 1.0, 0.25}.begin(), 4, tau.begin());
  const std::string text = capturedtable(false, [&] { variancetable(Tau::pi, tau, tests, 9.0); });
  EXPECT_NE(text.find("      SES slope,  r1      0.50000       0.25000    too few df to compute\n"), std::string::npos)
      << text;
  EXPECT_EQ(text.find("nan"), std::string::npos) << text;
}

}  // namespace
}  // namespace kdr
