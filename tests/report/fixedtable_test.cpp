#include "report/fixedtable.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "driver/runrecord.h"
#include "report/hypotheses.h"
#include "report/modelstatistics.h"
#include "reportfixture.h"

namespace kdr {
namespace {

// Intercept with a level-2 and a level-3 predictor, a random slope, a fixed slope: 5 fixed effects.
void fivegammas() {
  startmodel({"MATH", "SES", "AGE"}, {"SIZE"}, {"POOR"});
  setmodel({{0, true, {{0, {0, 1}}, {1, {0}, false}}}, {2, true, {{0, {0}}}}, {3, false, {{0, {0}, false}}}});
}

FixedDegrees degreesare(const std::vector<int>& df, const std::vector<int>& rough) {
  FixedDegrees degrees;
  degrees.df.reset(df.size());
  degrees.rough.reset(df.size());
  for (std::size_t i = 0; i < df.size(); ++i) {
    degrees.df[i] = df[i];
    degrees.rough[i] = static_cast<char>(rough[i]);
  }
  return degrees;
}

// Textbook points of t: 2.228 and 3.169 at 10 degrees of freedom are 5% and 1%. Every standard error is 1, so that
// coefficients are t-ratios. The last three rows cannot be tested: one degree of freedom, no variance, a variance that
// isn't a number.
TEST(FixedTable, TextRowsWithEveryKindOfEnding) {
  fivegammas();
  const FixedDegrees degrees = degreesare({10, 10, 1, 500, 10}, {0, 1, 0, 0, 1});
  const Array<double> gamma = arrayof({2.228, -3.169, 7.0, 1.0, 1.0});
  const Array<double> variance = arrayof({1, 1, 1, 0, std::numeric_limits<double>::quiet_NaN()});
  const std::string text = capturedtable(false, [&] {
    fixedtable({gamma, variance, degrees}, TableKind::estimates, PassKind::linear);
  });
  EXPECT_EQ(text,
            "\f The outcome variable is     MATH\n\n"
            " Final estimation of fixed effects:\n"
            " ----------------------------------------------------------------------------\n"
            "                                       Standard             Approx.\n"
            "    Fixed Effect         Coefficient   Error      T-ratio   d.f.     P-value\n"
            " ----------------------------------------------------------------------------\n"
            " For       INTRCPT1, P0\n"
            "    For INTRCPT2, B00\n"
            "      INTRCPT3, G000      2.228000    1.000000      2.228       10    0.050\n"
            "          POOR, G001     -3.169000    1.000000     -3.169       10    0.010#\n"
            "    For     SIZE, B01\n"
            "      INTRCPT3, G010      7.000000    1.000000      7.000 Unable to compute\n"
            " For      SES slope, P1\n"
            "    For INTRCPT2, B10\n"
            "      INTRCPT3, G100      1.000000    0.000000      0.000 Unable to compute\n"
            " For      AGE slope, P2\n"
            "    For INTRCPT2, B20\n"
            "      INTRCPT3, G200      1.000000    0.000000      0.000 Unable to compute\n"
            " ----------------------------------------------------------------------------\n"
            " The p-vals above marked with a \"#\" should regarded as a rough approximation.\n"
            "\n");
}

TEST(FixedTable, HtmlShowsSmallPAndClosesWithTheBottomStyle) {
  startmodel({"A<B&C"}, {}, {});
  run.mdm.names1[1] = paddedname("A<B&C");
  run.kind.outname = run.mdm.names1[1];
  setmodel({{0, true, {{0, {0}}}}});
  const FixedDegrees degrees = degreesare({40}, {1});
  const Array<double> gamma = arrayof({10}), variance = arrayof({1});
  const std::string html = capturedtable(true, [&] {
    fixedtable({gamma, variance, degrees}, TableKind::laplace, PassKind::pql);
  });
  EXPECT_NE(html.find("<h4> The outcome variable is    A&lt;B&amp;C\n\n Final estimation of fixed effects\n"
                      " (Unit-specific model)\n</h4><table border=1 "),
            std::string::npos)
      << html;
  const std::string style = stylebottom;
  EXPECT_NE(html.find("<tr><td " + style +
                      ">&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;INTRCPT3, "
                      "<i>&gamma;</i><sub><small><i>000</i></small></sub> </td><td align=right valign=bottom " +
                      style + ">    10.000000</td>\n"),
            std::string::npos)
      << html;
  EXPECT_NE(html.find(">40</td>\n<td align=right valign=bottom " + style + ">&lt;0.001#</td>\n</tr></tbody></table>\n"),
            std::string::npos)
      << html;
}

struct HeadingCase {
  TableKind kind;
  PassKind pass;
  const char* heading;
};

// What the heading says, and whose degrees of freedom the row has: 1000 records less 1 gamma for least squares, 10 of
// the table otherwise.
TEST(FixedTable, HeadingsAndDegrees) {
  using enum TableKind;
  const HeadingCase cases[] = {
      {estimates, PassKind::linear, "\n\n Final estimation of fixed effects:\n ---"},
      {robust, PassKind::linear, "\n\n Final estimation of fixed effects\n (with robust standard errors)\n ---"},
      {estimates, PassKind::identity,
       "\n\n Estimation of fixed effects: (linear model with identity link function)\n ---"},
      {estimates, PassKind::pql, "\n\n Final estimation of fixed effects: (Unit-specific model)\n ---"},
      {robust, PassKind::pql, " fixed effects\n (Unit-specific model with robust standard errors)\n ---"},
      {estimates, PassKind::populationaverage,
       "\n\n Final estimation of fixed effects: (Population-average model)\n ---"},
      {robust, PassKind::populationaverage,
       " fixed effects\n (Population-average model with robust standard errors)\n ---"},
      {estimates, PassKind::categories, "\n\n Final estimation of fixed effects:\n ---"},
      {robust, PassKind::categories, "\n\n Final estimation of fixed effects\n (with robust standard errors)\n ---"},
      {leastsquares, PassKind::linear, "\n\n Least-squares estimates of fixed effects\n ---"},
      {leastsquaresrobust, PassKind::linear,
       "\n\n Least-squares estimates of fixed effects\n (with robust standard errors)\n ---"},
      {averagedmi, PassKind::pql, "     Y\n\n Final estimation of fixed effects: (Unit-specific model)\n ---"},
      {averagedrobustmi, PassKind::linear, " fixed effects\n (with robust standard errors)\n ---"},
      {averagedpv, PassKind::linear, " The outcome variables are: \n\n Final estimation of fixed effects:\n ---"},
      {averagedrobustpv, PassKind::linear,
       " The outcome variables are: \n\n Final estimation of fixed effects\n (with robust"},
      {laplace, PassKind::pql, "\n\n Final estimation of fixed effects\n (Unit-specific model)\n ---"},
      {quadrature, PassKind::pql, "\n\n Final estimation of fixed effects\n (Unit-specific model)\n ---"}};
  startmodel({"Y"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  const FixedDegrees degrees = degreesare({10}, {0});
  const Array<double> variance = arrayof({9}), gamma(1);
  for (const HeadingCase& c : cases) {
    run.kind.nlrun = c.pass != PassKind::linear && c.pass != PassKind::categories;
    const std::string text = capturedtable(false, [&] { fixedtable({gamma, variance, degrees}, c.kind, c.pass); });
    const bool ownline = c.kind == estimates || c.kind == averagedpv || c.kind == averagedmi;
    EXPECT_EQ(text[0] == '\f', ownline) << text;
    EXPECT_NE(text.find(c.heading), std::string::npos) << c.heading << text;
    const bool ofleastsquares = c.kind == leastsquares || c.kind == leastsquaresrobust;
    EXPECT_EQ(text.find("Approx.") != std::string::npos, !ofleastsquares);
    const char* row = ofleastsquares ? " 0.000000    3.000000      0.000      999    1.000\n"
                                     : " 0.000000    3.000000      0.000       10    1.000\n";
    EXPECT_NE(text.find(row), std::string::npos) << text << row;
  }
}

// Gammas 2 and 3 (of 4) are one: three rows remain, the second is marked, and the labels of the third gamma are gone.
TEST(FixedTable, ConstrainedGammasAreMarked) {
  startmodel({"Y", "X"}, {}, {"POOR"});
  setmodel({{0, true, {{0, {0, 1}}}}, {2, true, {{0, {0, 1}}}}});
  setconstraints({0, 1, -1, 0});
  const FixedDegrees degrees = degreesare({10, 10, 10, 0}, {0, 0, 0, 0});
  const Array<double> gamma(3), variance(3);
  const std::string text = capturedtable(false, [&] {
    fixedtable({gamma, variance, degrees}, TableKind::estimates, PassKind::linear);
  });
  EXPECT_NE(text.find("INTRCPT3, G000      0.000000"), std::string::npos) << text;
  EXPECT_NE(text.find("    POOR, G001*     0.000000"), std::string::npos) << text;
  EXPECT_NE(text.find("    POOR, G101      0.000000"), std::string::npos) << text;
  EXPECT_EQ(text.find("G100"), std::string::npos) << text;
  EXPECT_NE(text.find(" The \"*\" gammas have been constrained. See the table on page 1.\n\n"), std::string::npos);
}

TEST(RatioTable, WritesIntervalsInANonlinearRunOnly) {
  fivegammas();
  const FixedDegrees degrees = degreesare({10, 1, 10, 10, 10}, {0, 0, 0, 0, 0});
  // The 5% point of t with 10 degrees of freedom is 2.2281, taken as 2.229: exp(2.229) is 9.2906.
  const Array<double> gamma = arrayof({0.0, 0.0, std::log(2.0), 1000.0, 0.0});
  const Array<double> variance = arrayof({1, 1, 1, 1, 1});
  const auto write = [&] { ratiotable({gamma, variance, degrees}, TableKind::estimates); };
  EXPECT_EQ(capturedtable(false, write), "");
  run.kind.nlrun = true;
  run.kind.nonlin = 2;
  const std::string text = capturedtable(false, write);
  EXPECT_NE(text.find("                                         Event Rate     Confidence\n"), std::string::npos);
  EXPECT_NE(text.find("      INTRCPT3, G000        0.000000       1.000000     (0.108,9.291)\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("          POOR, G001        0.000000       1.000000    Unable to compute\n"), std::string::npos);
  EXPECT_NE(text.find("      INTRCPT3, G010        0.693147       2.000000     (0.215,18.581)\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("      INTRCPT3, G100     1000.000000             NC    Unable to compute\n"), std::string::npos);
  EXPECT_EQ(text.find("inf"), std::string::npos);
}

// Two hypotheses over 3 gammas. The first, of rows (0 1 0) and (0 2 0), depends on itself; the second, (1 -1 0) with
// variances 3 and 1 and no covariance, has estimate 4 - 2 = 2, variance 4, statistic 1. The cube-root transform of 1
// with one degree of freedom is z = (2/9) sqrt(4.5) = 0.4714, whose tail is 0.5 / 1.119397^4 = 0.318444 (exactly:
// 0.3173).
TEST(HypothesisTest, GoesOnBehindDependentContrasts) {
  startmodel({"Y", "X"}, {}, {"POOR"});
  setmodel({{0, true, {{0, {0, 1}}}}, {2, true, {{0, {0}}}}});
  const double rows[9] = {0, 1, 0, 0, 2, 0, 1, -1, 0};
  run.model.hypothesisrows[0] = 2;
  run.model.hypothesisrows[1] = 1;
  run.model.contrasts.reset(9);
  for (std::size_t i = 0; i < 9; ++i) run.model.contrasts[i] = rows[i];
  const double gamma[3] = {4, 2, 9};
  const double V[12] = {3, 0, 0, 0, 0, 1, 0, 0, 0, 0, 5, 0};  // rows of 4
  const std::string rule = ruleof(77);
  const std::string text = capturedtable(false, [&] { hypothesistest(3, gamma, V, 4); });
  EXPECT_EQ(text, "\f                Results of General Linear Hypothesis Testing\n" + rule +
                      "                            Coefficients      Contrast\n" + rule +
                      " For       INTRCPT1, P0\n"
                      "    For INTRCPT2, B00\n"
                      "         INTRCPT3, G000        4.000000      0.000     0.000\n"
                      "             POOR, G001        2.000000      1.000     2.000\n"
                      " For        X slope, P1\n"
                      "    For INTRCPT2, B10\n"
                      "         INTRCPT3, G100        9.000000      0.000     0.000\n"
                      "It appears that the 2 constrasts you are testing are not independent.\n"
                      "The chi-square cannot be computed.\n"
                      "\f                Results of General Linear Hypothesis Testing\n" +
                      rule + "                            Coefficients      Contrast\n" + rule +
                      " For       INTRCPT1, P0\n"
                      "    For INTRCPT2, B00\n"
                      "         INTRCPT3, G000        4.000000      1.000\n"
                      "             POOR, G001        2.000000     -1.000\n"
                      " For        X slope, P1\n"
                      "    For INTRCPT2, B10\n"
                      "         INTRCPT3, G100        9.000000      0.000\n" +
                      rule + " Estimate                                  2.00000\n" +
                      " Standard Error of estimate                2.00000\n"
                      "\nChi-square statistic = 1.000000\nDegrees of freedom   = 1\nP-value              = 0.318444\n");
}

// Correlated estimates. V = (2 1; 1 2), both gammas tested at once, estimates (3, 0): V^-1 = (2 -1; -1 2) / 3, so the
// statistic is 9 * 2/3 = 6 with 2 degrees of freedom. exp(-6/2) = 0.0498; the transform behind the table gives 0.049.
TEST(HypothesisTest, InvertsTheCovarianceOfTheContrasts) {
  startmodel({"Y"}, {}, {"POOR"});
  setmodel({{0, true, {{0, {0, 1}}}}});
  run.model.hypothesisrows[0] = 2;
  run.model.contrasts.reset(4);
  run.model.contrasts[0] = run.model.contrasts[3] = 1.0;
  const double gamma[2] = {3, 0}, V[4] = {2, 1, 1, 2};
  const std::string html = capturedtable(true, [&] { hypothesistest(2, gamma, V, 2); });
  EXPECT_NE(html.find("<h5>Results of General Linear Hypothesis Testing - Test 1</h5>"), std::string::npos);
  EXPECT_NE(html.find("&nbsp;statistic = 6.000000<br>&nbsp;&nbsp;&nbsp;&nbsp;Degrees of freedom   = 2<br>"),
            std::string::npos)
      << html;
  EXPECT_NE(html.find("<td align=right style='border:none' > 1.4142</td>"), std::string::npos) << html;
  EXPECT_NE(html.find("<i>p</i>-value              = 0.04"), std::string::npos) << html;
}

TEST(HypothesisTest, RefusesMoreContrastsThanGammas) {
  startmodel({"Y"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  run.model.hypothesisrows[0] = 2;
  run.model.contrasts.reset(2);
  const double gamma = 1, V = 1;
  EXPECT_EQ(capturedtable(false, [&] { hypothesistest(1, &gamma, &V, 1); }),
            "Sorry, but the number of contrasts cannot exceed the number of gammas.\n");
}

struct DevianceCase {
  const char* what;
  double deviance;
  int parameters;
  int phase;
  double fixsigma2;
  const char* words;
};

class Comparisons : public testing::TestWithParam<DevianceCase> {};

// Log-likelihood -500, so deviance 1000. 5 gammas, taupi of order 2 (3 elements), taubeta of order 2 (3), sigma^2: 12
// parameters; 11 with sigma^2 fixed; 9 + 20 * 3 = 69 with a taupi for each of 20 level-3 units.
TEST_P(Comparisons, DevianceAgainstTheAlternative) {
  const DevianceCase& c = GetParam();
  fivegammas();
  run.out.deviance = c.deviance;
  run.out.df = c.parameters;
  run.iter.fixsigma2 = c.fixsigma2;
  const std::string text = captured(false, [&] { modelstatistics(-500.0, c.phase); });
  EXPECT_EQ(text, std::string("\n\n Statistics for the current model\n"
                              " --------------------------------------------------\n"
                              " Deviance                       = 1000.000000\n"
                              " Number of estimated parameters = ") +
                      c.words);
}

#define COMPARISON "\n Model comparison test\n -----------------------------------\n"

INSTANTIATE_TEST_SUITE_P(
    All, Comparisons,
    testing::Values(
        DevianceCase{"no alternative", missingcode, 0, 2, 0.0, "12\n"},
        DevianceCase{"a taupi for each unit", missingcode, 0, 1, 0.0, "69\n"},
        DevianceCase{"sigma^2 fixed", missingcode, 0, 2, 1.0, "11\n"},
        // The 5% point of chi-square with 10 degrees of freedom is 18.307.
        DevianceCase{"larger alternative", 1018.307, 2, 2, 0.0,
                     "12\n" COMPARISON " Chi-square statistic   =     18.30700\n Degrees of freedom     =     10\n"
                     " P-value                =      0.050\n"},
        DevianceCase{"far away", 900.0, 2, 2, 0.0,
                     "12\n" COMPARISON " Chi-square statistic   =    100.00000\n Degrees of freedom     =     10\n"
                     " P-value                =      <0.001\n"},
        DevianceCase{"below its degrees", 995.0, 22, 2, 0.0,
                     "12\n" COMPARISON " Chi-square statistic   =      5.00000\n Degrees of freedom     =     10\n"
                     " P-value                =      >.500\n"},
        DevianceCase{"the same model", 1000.0, 12, 2, 0.0,
                     "12\n" COMPARISON " Chi-square statistic   =      0.00000\n Degrees of freedom     =      0\n"
                     " P-value                =      >.500\n"},
        DevianceCase{"no degrees", 900.0, 12, 2, 0.0,
                     "12\n" COMPARISON " Chi-square statistic   =    100.00000\n Degrees of freedom     =      0\n"
                     " P-value                =      >.500\n"}));

}  // namespace
}  // namespace kdr
