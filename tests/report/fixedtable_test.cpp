#include "report/fixedtable.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

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

TEST(FixedTable, HtmlEscapesNames) {
  startmodel({"A<B&C"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  const FixedDegrees degrees = degreesare({40}, {1});
  const Array<double> gamma = arrayof({10}), variance = arrayof({1});
  const std::string html = capturedtable(true, [&] {
    fixedtable({gamma, variance, degrees}, TableKind::laplace, PassKind::pql);
  });
  EXPECT_NE(html.find("<h4> The outcome variable is    A&lt;B&amp;C\n"), std::string::npos) << html;
  EXPECT_NE(html.find(">&lt;0.001#</td>\n</tr></tbody></table>\n"), std::string::npos) << html;
}

TEST(RatioTable, WritesIntervalsInANonlinearRunOnly) {
  fivegammas();
  const FixedDegrees degrees = degreesare({10, 1, 10, 10, 10}, {0, 0, 0, 0, 0});
  // The 5% point of t with 10 degrees of freedom is 2.2281, taken as 2.229: exp(2.229) is 9.2906.
  const Array<double> gamma = arrayof({0.0, 0.0, std::log(2.0), 1000.0, 0.0});
  const Array<double> variance = arrayof({1, 1, 1, 1, 1});
  const auto write = [&] { ratiotable({gamma, variance, degrees}, TableKind::estimates); };
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

TEST(HypothesisTest, RefusesMoreContrastsThanGammas) {
  startmodel({"Y"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  run.model.hypothesisrows[0] = 2;
  run.model.contrasts.reset(2);
  const double gamma = 1, V = 1;
  EXPECT_EQ(capturedtable(false, [&] { hypothesistest(1, &gamma, &V, 1); }),
            "Sorry, but the number of contrasts cannot exceed the number of gammas.\n");
}

// Log-likelihood -500, so deviance 1000. 5 gammas, taupi of order 2 (3 elements), taubeta of order 2 (3), sigma^2: 12
// parameters; 11 with sigma^2 fixed; 9 + 20 * 3 = 69 with a taupi for each of 20 level-3 units.
TEST(ModelStatistics, ParametersAndTheAlternative) {
  const struct {
    double deviance;
    int parameters, phase;
    double fixsigma2;
    const char* words;  // number of parameters, degrees of freedom and p-value of the comparison
  } cases[] = {{missingcode, 0, 1, 0.0, "69"},       {missingcode, 0, 2, 1.0, "11"},
               {1018.307, 2, 2, 0.0, "12 10 0.050"},  // the 5% point of chi-square with 10 degrees of freedom is 18.307
               {995.0, 22, 2, 0.0, "12 10 >.500"},    // below its degrees of freedom
               {1000.0, 12, 2, 0.0, "12 0 >.500"},    // the same model
               {900.0, 12, 2, 0.0, "12 0 >.500"}};    // no degrees of freedom
  for (const auto& c : cases) {
    fivegammas();
    run.out.deviance = c.deviance;
    run.out.df = c.parameters;
    run.model.restrictions.fixsigma2 = c.fixsigma2;
    const std::string text = captured(false, [&] { modelstatistics(-500.0, c.phase); });
    std::string words;
    for (const char* name :
         {"Number of estimated parameters =", "Degrees of freedom     =", "P-value                ="})
      if (const std::size_t at = text.find(name); at != std::string::npos) {
        std::istringstream line(text.substr(at + std::strlen(name)));
        std::string value;
        line >> value;
        words += (words.empty() ? "" : " ") + value;
      }
    EXPECT_EQ(words, c.words) << text;
  }
}

}  // namespace
}  // namespace kdr
