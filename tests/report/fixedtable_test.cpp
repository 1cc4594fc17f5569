#include "report/fixedtable.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "driver/runrecord.h"
#include "estimate/inference/modelstatistics.h"
#include "estimate/inference/teststatistics.h"
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

// The fixed effects of `gamma` with these variances.
std::vector<EffectTest> effectsof(const std::vector<double>& gamma, const std::vector<double>& variance,
                                  const std::vector<int>& df, const std::vector<int>& rough) {
  std::vector<EffectTest> rows;
  for (std::size_t g = 0; g < gamma.size(); ++g)
    rows.push_back(effecttest(gamma[g], variance[g], df[g], rough[g] != 0));
  return rows;
}

// Textbook points of t: 3.169 at 10 degrees of freedom is 1%. Every standard error is 1, so that coefficients are
// t-ratios. The last three rows cannot be tested: one degree of freedom, no variance, a variance that isn't a number.
TEST(FixedTable, RowsWithOddEndings) {
  fivegammas();
  const std::vector<EffectTest> effects =
      effectsof({2.228, -3.169, 7.0, 1.0, 1.0}, {1, 1, 1, 0, std::numeric_limits<double>::quiet_NaN()},
                {10, 10, 1, 500, 10}, {0, 1, 0, 0, 1});
  const std::string text = capturedtable(false, [&] { fixedtable(effects, TableKind::estimates, PassKind::linear); });
  for (const char* line : {"          POOR, G001     -3.169000    1.000000     -3.169       10    0.010#\n",
                           "      INTRCPT3, G010      7.000000    1.000000      7.000 Unable to compute\n",
                           "      INTRCPT3, G100      1.000000    0.000000      0.000 Unable to compute\n",
                           "      INTRCPT3, G200      1.000000    0.000000      0.000 Unable to compute\n",
                           " The p-vals above marked with a \"#\" should regarded as a rough approximation.\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
}

TEST(FixedTable, HtmlEscapesNames) {
  startmodel({"A<B&C"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  const std::string html =
      capturedtable(true, [&] { fixedtable(effectsof({10}, {1}, {40}, {1}), TableKind::laplace, PassKind::pql); });
  EXPECT_NE(html.find("<h4> The outcome variable is    A&lt;B&amp;C\n"), std::string::npos) << html;
  EXPECT_NE(html.find(">&lt;0.001#</td>\n</tr></tbody></table>\n"), std::string::npos) << html;
}

TEST(RatioTable, WritesIntervalsInANonlinearRunOnly) {
  fivegammas();
  // The 5% point of t with 10 degrees of freedom is 2.2281, taken as 2.229: exp(2.229) is 9.2906.
  const auto effects =
      effectsof({0.0, 0.0, std::log(2.0), 1000.0, 0.0}, {1, 1, 1, 1, 1}, {10, 1, 10, 10, 10}, {0, 0, 0, 0, 0});
  const auto write = [&] { ratiotable(effects); };
  EXPECT_EQ(capturedtable(false, write), "");
  run.model.outcome.family = Family::poisson;
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

EffectTable tested(const Array<double>& gamma, const Array<double>& covariance) {
  const FixedDegrees degrees{Array<double>(gamma.size()), Array<char>(gamma.size())};
  EffectTable table = effecttable(gamma, covariance, degrees);
  addhypotheses(table, run.model, gamma, covariance);
  return table;
}

// Two hypotheses over 3 gammas. The first, of rows (0 1 0) and (0 2 0), depends on itself; the second, (1 -1 0) with
// variances 3 and 1 and no covariance, has estimate 4 - 2 = 2, variance 4, statistic 1, whose tail is 0.317311.
TEST(HypothesisTest, GoesOnBehindDependentContrasts) {
  startmodel({"Y", "X"}, {}, {"POOR"});
  setmodel({{0, true, {{0, {0, 1}}}}, {2, true, {{0, {0}}}}});
  const double rows[9] = {0, 1, 0, 0, 2, 0, 1, -1, 0};
  run.model.hypothesisrows[0] = 2;
  run.model.hypothesisrows[1] = 1;
  run.model.contrasts.reset(9);
  for (std::size_t i = 0; i < 9; ++i) run.model.contrasts[i] = rows[i];
  run.model.nhypotheses = true;
  const Array<double> gamma = arrayof({4, 2, 9}), V = arrayof({3, 0, 0, 0, 1, 0, 0, 0, 5});
  const std::string text = capturedtable(false, [&] { hypothesistests(tested(gamma, V)); });
  const std::size_t first = text.find(
      "             POOR, G001        2.000000      1.000     2.000\n"
      " For        X slope, P1\n"
      "    For INTRCPT2, B10\n"
      "         INTRCPT3, G100        9.000000      0.000     0.000\n"
      "It appears that the 2 constrasts you are testing are not independent.\n"
      "The chi-square cannot be computed.\n"
      "\f                Results of General Linear Hypothesis Testing\n");
  EXPECT_LT(first,
            text.find("Chi-square statistic = 1.000000\nDegrees of freedom   = 1\nP-value              = 0.317311\n"));
}

TEST(HypothesisTest, RefusesMoreContrastsThanGammas) {
  startmodel({"Y"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  run.model.hypothesisrows[0] = 2;
  run.model.contrasts.reset(2);
  run.model.nhypotheses = true;
  EXPECT_EQ(capturedtable(false, [&] { hypothesistests(tested(arrayof({1}), arrayof({1}))); }),
            "Sorry, but the number of contrasts cannot exceed the number of gammas.\n");
}

// Log-likelihood -500, so deviance 1000. 5 gammas, taupi of order 2 (3 elements), taubeta of order 2 (3), sigma^2: 12
// parameters; 10 with both diagonal. The 5% points of chi-square: 18.307 on 10, 5.9915 on 2, 3.8415 on 1.
TEST(ModelStatistics, TheAlternative) {
  constexpr double one = 0.5 * 0.0500, two = 0.5 * (0.0500 + 0.0143), three = 0.5 * (0.1120 + 0.0500);
  const struct {
    double deviance;
    int parameters;
    bool diagonal;
    int df;
    double p, mixture;
    const char* impossible;
  } cases[] = {{1018.307, 2, false, 10, 0.05, 1.0, ""},
               {1005.9915, 10, false, 2, 0.05, two, ""},
               {1003.8415, 9, true, 1, 0.05, one, ""},
               {994.0085, 15, false, 3, 0.1120, three, ""},
               {1000.00001, 22, false, 10, 1.0, 1.0, ""},  // equal, but for what was typed
               {937.6, 11, false, 1, 1.0, 1.0, "The model with more parameters fits worse"},
               {1000.0, 12, false, 0, 1.0, 1.0, "the same number of parameters"}};
  for (const auto& c : cases) {
    fivegammas();
    run.model.restrictions.diagtaupi = run.model.restrictions.diagtaubeta = c.diagonal;
    const long long parameters = parametercount(run.model, 1);
    EXPECT_EQ(parameters, c.diagonal ? 10 : 12);
    const DevianceComparison made = comparisonof(1000.0, parameters, {c.deviance, c.parameters}, run.model, false);
    EXPECT_EQ(made.chisquare.df, c.df) << c.deviance;
    EXPECT_NEAR(made.chisquare.p, c.p, 1e-4) << c.deviance;
    EXPECT_NEAR(made.mixturep, c.mixture, 1e-4) << c.deviance;
    EXPECT_EQ(made.mixture, c.mixture < 1.0) << c.deviance;
    EXPECT_EQ(made.impossible.empty(), *c.impossible == 0) << c.deviance;
    EXPECT_NE(made.impossible.find(c.impossible), std::string::npos) << made.impossible;
  }
  // sigma^2 that is held is none; a taupi for each of 20 level-3 units has 20 times 3 elements.
  run.model.restrictions.fixsigma2 = 1.0;
  EXPECT_EQ(parametercount(run.model, 1), 11);
  fivegammas();
  run.out.deviance = 1005.9915;
  run.out.df = 67;
  PassResults results;
  results.loglik = -500.0;
  results.heterogeneous = true;
  results.est.gammahat.reset(5);
  complete(results, run.model, countsof(run.mdm));
  const std::string text = captured(false, [&] { modelstatistics(results); });
  for (const char* words :
       {"Number of estimated parameters = 69\n", "Degrees of freedom     =      2\n",
        "P-value                =      0.050\n", "with 1 and 2\n degrees of freedom it is 0.032.\n"})
    EXPECT_NE(text.find(words), std::string::npos) << words << text;
}

}  // namespace
}  // namespace kdr
