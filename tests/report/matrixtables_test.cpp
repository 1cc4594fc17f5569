#include "report/matrixtables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "driver/runrecord.h"
#include "report/variancetables.h"
#include "reportfixture.h"

namespace kdr {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// Random intercept and slope, each with its own level-2 equation.
void twobytwo() {
  startmodel({"MATH", "SES"}, {"SIZE"}, {});
  setmodel({{0, true, {{0, {0}}}}, {2, true, {{0, {0}}}}});
}

struct TitleCase {
  MatrixTitle kind;
  bool zero;
  int n;
  const char* text;
  const char* html;
};

class Titles : public testing::TestWithParam<TitleCase> {};

TEST_P(Titles, OfTauPi) {
  const TitleCase& c = GetParam();
  twobytwo();
  const double matrix[4] = {};
  const auto write = [&] { tautable(Tau::pi, c.kind, c.zero, c.n, matrix); };
  const std::string text = capturedtable(false, write), html = capturedtable(true, write);
  EXPECT_EQ(text.substr(0, text.find(" INTRCPT1,P0")), c.text);
  EXPECT_EQ(html.substr(0, html.find("<table")), c.html);
}

#define TAUPI "&tau;<sub><small>&pi;</small></sub>"
INSTANTIATE_TEST_SUITE_P(
    All, Titles,
    testing::Values(TitleCase{MatrixTitle::plain, false, 2, "\ntau(pi)\n", "<br>\n" TAUPI "<br>\n"},
                    TitleCase{MatrixTitle::plain, true, 2, "\ntau(pi)(0)\n",
                              "<br>\n" TAUPI "<sub><small><i>(0)</i></small></sub><br>\n"},
                    TitleCase{MatrixTitle::standarderror, true, 2, "Standard errors of tau(pi)\n",
                              "Standard errors of " TAUPI "<br>\n"},
                    TitleCase{MatrixTitle::standarderror, false, 1, "Standard error of tau(pi)\n",
                              "Standard error of " TAUPI "<br>\n"},
                    TitleCase{MatrixTitle::renewed, true, 2, "New tau(pi)(0)\n",
                              "New " TAUPI "<sub><small><i>(0)</i></small></sub><br>\n"},
                    TitleCase{MatrixTitle::average, true, 2, "Average tau(pi)\n", "Average " TAUPI "<br>\n"},
                    TitleCase{MatrixTitle::weightedaverage, false, 2, "Weighted average tau(pi)\n",
                              "Weighted average " TAUPI "<br>\n"}));

TEST(TauPiTable, RowsInBothModes) {
  twobytwo();
  const double matrix[4] = {1.5, -0.25, -0.25, missingcode};
  const auto write = [&] { tautable(Tau::pi, MatrixTitle::plain, false, 2, matrix); };
  EXPECT_EQ(capturedtable(false, write),
            "\ntau(pi)\n"
            " INTRCPT1,P0      1.50000      -0.25000 \n"
            "      SES,P1     -0.25000            NC \n"
            "\n");
  EXPECT_EQ(capturedtable(true, write),
            "<br>\n" TAUPI
            "<br>\n<table border=0 cellpadding=0><tbody>"
            "<tr><td>INTRCPT1,<i>&pi;</i><sub><small><i>0</i></small></sub></td>"
            "<td align=right>&nbsp;&nbsp;     1.50000</td><td align=right>&nbsp;&nbsp;    -0.25000</td></tr>\n"
            "<tr><td>     SES,<i>&pi;</i><sub><small><i>1</i></small></sub></td>"
            "<td align=right>&nbsp;&nbsp;    -0.25000</td><td align=right>&nbsp;&nbsp;          NC</td></tr>\n"
            "</tbody></table>\n");
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

// r = 1 / sqrt(4 * 1) = 0.5; no correlation with a coefficient without variance.
TEST(CorrelationTable, OfBothLevels) {
  twobytwo();
  const double matrix[4] = {4, 1, 1, 1}, flat[4] = {4, 0, 0, 0}, one = 1;
  EXPECT_EQ(capturedtable(false, [&] { correlationtable(Tau::pi, 2, matrix); }),
            "tau(pi) (as correlations)\n INTRCPT1,P0  1.000  0.500\n      SES,P1  0.500  1.000\n\n");
  EXPECT_EQ(capturedtable(false, [&] { correlationtable(Tau::beta, 2, flat); }),
            "tau(beta) (as correlations)\n INTRCPT1/INTRCPT2,B00  1.000     NC\n"
            "      SES/INTRCPT2,B10     NC     NC\n\n");
  EXPECT_EQ(capturedtable(false, [&] { correlationtable(Tau::pi, 1, &one); }), "");
}

TEST(ReliabilityTable, OfBothLevels) {
  twobytwo();
  const double values[2] = {0.25, 0.5};
  const std::string rule = ruleof(52);
  EXPECT_EQ(capturedtable(false, [&] { reliabilitytable(Tau::pi, 2, values); }),
            "\n" + rule + "  Random level-1 coefficient   Reliability estimate\n" + rule +
                "  INTRCPT1, P0                        0.250\n       SES, P1                        0.500\n" + rule);
  EXPECT_EQ(capturedtable(false, [&] { reliabilitytable(Tau::beta, 2, values); }),
            "\n" + rule + "  Random level-2 coefficient   Reliability estimate\n" + rule +
                "  INTRCPT1/INTRCPT2, B00               0.250\n       SES/INTRCPT2, B10               0.500\n" + rule);
}

// 31.410 is the 5% point of chi-square with 20 degrees of freedom.
TEST(VarianceTable, DegreesOfFreedomAndEndings) {
  twobytwo();
  const double tau[4] = {4, 1, 1, 0.25}, chisq[2] = {31.410, 50};
  const long long df[2] = {20, 0}, df3[2] = {10, 11};
  const std::string rule = ruleof(78);
  const std::string heads = rule +
                            " Random Effect           Standard      Variance     df    Chi-square   P-value\n"
                            "                         Deviation     Component\n" +
                            rule;
  EXPECT_EQ(capturedtable(false,
                          [&] {
                            variancetable(Tau::pi, {2, tau, chisq, df, 9.0});
                          }),
            "\n\n Final estimation of level-1 and level-2 variance components:\n" + heads +
                " INTRCPT1,        r0      2.00000       4.00000      20      31.41000    0.050\n"
                "      SES slope,  r1      0.50000       0.25000    too few df to compute\n"
                "  level-1,        e       3.00000       9.00000\n" +
                rule);
  run.iter.fixsigma2 = 9.0;
  const double chisq3[2] = {9.999, 1000}, broken[2] = {nan, 5};
  EXPECT_EQ(capturedtable(false,
                          [&] {
                            variancetable(Tau::beta, {2, tau, chisq3, df3, 9.0});
                          }),
            "\n\n Final estimation of level-3 variance components:\n" + heads +
                "INTRCPT1/INTRCPT2,  u00     2.00000       4.00000    10       9.99900    >.500\n"
                "     SES/INTRCPT2,  u10     0.50000       0.25000    11    1000.00000    0.000\n" +
                rule);
  const std::string html = capturedtable(true, [&] { variancetable(Tau::beta, {2, tau, chisq3, df3, 9.0}); });
  const std::string plain = styleplain, bottom = stylebottom;
  EXPECT_NE(html.find("<td align=right " + plain + ">>.500</td></tr>\n"), std::string::npos) << html;
  EXPECT_NE(html.find("<td align=right " + bottom + ">&lt;0.001</td></tr>\n</tbody></table>\n"), std::string::npos);
  EXPECT_EQ(capturedtable(false,
                          [&] {
                            variancetable(Tau::pi, {2, tau, broken, df3, 9.0});
                          })
                .find("nan"),
            std::string::npos);
}

// The level-1 row closes the HTML table only where sigma^2 is estimated.
TEST(VarianceTable, LevelOneRowIsLeftOutWithSigmaFixed) {
  twobytwo();
  const double tau[4] = {1, 0, 0, 1}, chisq[2] = {100, 100};
  const long long df[2] = {20, 20};
  const auto write = [&] { variancetable(Tau::pi, {2, tau, chisq, df, 4.0}); };
  const std::string row = std::string("<tr><td align=right ") + stylebottom + ">level-1, <i>e</i></td>";
  EXPECT_NE(capturedtable(true, write).find(row), std::string::npos);
  run.iter.fixsigma2 = 4.0;
  EXPECT_EQ(capturedtable(true, write).find(stylebottom), std::string::npos);
}

TEST(PartialDataNote, BothModes) {
  const auto write = [] { partialdatanote("reliability estimates", 9, 10); };
  EXPECT_EQ(captured(false, write),
            "\n\nNote: The reliability estimates reported above are based on only 9 of 10\n"
            "units that had sufficient data for computation.  Fixed effects and variance\n"
            "components are based on all the data.\n");
  EXPECT_EQ(captured(true, write).substr(0, 10), "<br>\nNote:");
}

}  // namespace
}  // namespace kdr
