#include "report/specification.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "driver/runrecord.h"
#include "report/equations.h"
#include "report/fixedtable.h"
#include "report/header.h"
#include "report/hypotheses.h"
#include "report/matrixtables.h"
#include "report/modelstatistics.h"
#include "report/variancetables.h"
#include "reportfixture.h"

namespace kdr {
namespace {

std::string specification(bool html) {
  return captured(html, [] {
    setsymbols();
    makerowlabels();
    writespecification();
  });
}

void schoolmodel() {
  startmodel({"MATH", "SES", "AGE"}, {"SIZE", "PCT"}, {"POOR"});
  setmodel({{0, true, {{0, {0, 1}}, {1, {0}, false}}}, {2, true, {{0, {0}}}}, {3, false, {{1, {0, 1}}}}});
  run.files.title = "A<b & c";
  run.files.sourcename = "school.mdm";
  run.files.cmdshown = "m1.kdr";
  run.files.outfile = "m1.txt";
  run.iter.numit = 100;
}

TEST(Specification, LinearRunInText) {
  schoolmodel();
  run.model.center1[2] = run.model.center1[3] = 1;
  run.model.center3[1] = 2;
  run.out.wgtvar2 = 2;
  run.out.autovknown = 3;
  EXPECT_EQ(specification(false),
            "\n Specifications for this KDR3 run\n\n\n"
            "  Problem Title: A<b & c\n\n"
            "  The data source for this run  = school.mdm\n"
            "  The command file for this run = m1.kdr\n"
            "  Output file name              = m1.txt\n"
            "  The maximum number of level-1 units = 1000\n"
            "  The maximum number of level-2 units = 100\n"
            "  The maximum number of level-3 units = 20\n"
            "  The maximum number of iterations = 100\n\n"
            "  Method of estimation: full maximum likelihood\n"
            "\n Weighting Specification\n"
            " -----------------------\n"
            "                         Weight\n"
            "                         Variable\n"
            "            Weighting?   Name        Normalized?\n"
            " Level 1        no       \n"
            " Level 2       yes            PCT        yes\n"
            " Level 3        no       \n"
            " Precision     yes            AGE         no\n"
            "\n  The outcome variable is     MATH    \n"
            "\n  The model specified for the fixed effects was:\n"
            " ----------------------------------------------------\n"
            "\n   Level-1                Level-2           Level-3"
            "\n   Coefficients           Predictors        Predictors"
            "\n ---------------------  ---------------   ----------------\n"
            "        INTRCPT1, P0      INTRCPT2, B00    INTRCPT3, G000\n"
            "                                          %    POOR, G001\n"
            "                        #     SIZE, B01    INTRCPT3, G010\n"
            " *     SES slope, P1      INTRCPT2, B10    INTRCPT3, G100\n"
            "#*     AGE slope, P2          SIZE, B21    INTRCPT3, G210\n"
            "                                          %    POOR, G211\n"
            "\n '#' - The residual parameter variance for the parameter has been set to zero\n"
            " '*' - This variable has been centered around its group mean\n"
            " '%' - This variable has been centered around its grand mean\n"
            "\n\n Summary of the model specified (in equation format)\n"
            " ---------------------------------------------------\n"
            "\nLevel-1 Model\n\n"
            "\tMATH = P0 + P1*(SES) + P2*(AGE) + e\n"
            "\nLevel-2 Model\n\n"
            "\tP0 = B00 + B01*(SIZE) + r0\n"
            "\tP1 = B10 + r1\n"
            "\tP2 = B21*(SIZE) \n"
            "\n\nLevel-3 Model\n\n"
            "\tB00 = G000 + G001(POOR) + u00\n"
            "\tB01 = G010 \n"
            "\tB10 = G100 + u10\n"
            "\tB21 = G210 + G211(POOR) + u21\n"
            "\nSES AGE have been centered around the group mean.\n"
            "\nPOOR has been centered around the grand mean.\n"
            "\n\nMixed Model\n"
            "    MATH = G000+ G001*POOR+ G010*SIZE+ G100*SES\n"
            "   + G210*AGE*SIZE+ G211*AGE*SIZE*POOR\n"
            "    + r0 + r1*SES+ u00 + u10*SES + u21*AGE*SIZE + e\n");
  // The subscripts of the random coefficients, for the rows of the tau matrices.
  ASSERT_EQ(run.coef.pisubs.size(), 2U);
  EXPECT_EQ(run.coef.pisubs[1], 1);
  ASSERT_EQ(run.coef.betasubs1.size(), 3U);
  EXPECT_EQ(run.coef.betasubs1[2] * 10 + run.coef.betasubs2[2], 21);
}

TEST(Specification, HtmlHasNoModelTableButTheLabels) {
  schoolmodel();
  const std::string html = specification(true);
  EXPECT_EQ(html.find("model specified for the fixed effects"), std::string::npos);
  EXPECT_NE(html.find("  Problem Title: A&lt;b &amp; c<br>\n"), std::string::npos);
  EXPECT_NE(html.find("&nbsp;&nbsp;&nbsp;&nbsp;<i>&pi;</i><sub><small><i>0jk</i></small></sub> = "
                      "<i>&beta;</i><sub><small><i>00k</i></small></sub> + "
                      "<i>&beta;</i><sub><small><i>01k</i></small></sub>*(<i>SIZE</i><sub><small><i>jk</i></small>"
                      "</sub>) + <i>r</i><sub><small><i>0jk</i></small></sub><br>\n"),
            std::string::npos)
      << html;
  EXPECT_STREQ(run.coef.gammanames3[1].text, "    POOR, <i>&gamma;</i><sub><small><i>001</i></small></sub>");
  run.mdm.mdmtype = 2;
  EXPECT_NE(specification(true).find("<i>&pi;</i><sub><small><i>0ij</i></small></sub> = "), std::string::npos);
  EXPECT_NE(specification(true).find("<i>MATH</i><sub><small><i>tij</i></small></sub> = "), std::string::npos);
}

// A level without an intercept counts its subscripts from 1, in the equations of all levels and in the mixed one.
TEST(Specification, SubscriptsWithoutIntercepts) {
  startmodel({"MATH", "SES"}, {"SIZE"}, {"POOR"});
  setmodel({{2, true, {{1, {1}}}}});
  const std::string text = specification(false);
  EXPECT_NE(text.find("\tMATH = P1*(SES) + e\n\nLevel-2 Model\n\n\tP1 = B11*(SIZE) + r1\n\n\nLevel-3 Model\n\n"
                      "\tB11 = G111(POOR) + u11\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("    MATH = G111*SES*SIZE*POOR+ r1*SES+ u11*SES*SIZE + e\n"), std::string::npos) << text;
  EXPECT_STREQ(run.coef.gammanames1[0].text, "     SES slope, P1");
}

// Coefficients 0 to 15: new lines before 5, 9 and 13 alone, at every level.
TEST(Specification, LongEquationsBreakThreeTimes) {
  std::vector<std::string> predictors;
  for (int i = 1; i <= 15; ++i) predictors.push_back(std::string("X").append(std::to_string(i)));
  std::vector<std::string> level1 = predictors;
  level1.insert(level1.begin(), "Y");
  startmodel(level1, predictors, predictors);
  std::vector<int> effects(16);
  for (int u = 0; u < 16; ++u) effects[static_cast<std::size_t>(u)] = u;
  std::vector<TestTerm> terms{{0, effects}};
  for (int t = 1; t < 16; ++t) terms.push_back({t, {0}, false});
  std::vector<TestCoefficient> coefficients{{0, true, terms}};
  for (int c = 1; c < 16; ++c) coefficients.push_back({c + 1, false, {{0, {0}, false}}});
  setmodel(coefficients);

  const std::string text = specification(false);
  const auto line = [](int from, int to, const char* symbol, const char* sub, const char* times) {
    std::string words;
    for (int i = from; i <= to; ++i) {
      if (i > 0) words += "+ ";
      words += symbol + std::string(sub) + std::to_string(i);
      if (i > 0) words += times + std::string("(X") + std::to_string(i) + ")";
      words += " ";
    }
    return words;
  };
  const auto equation = [&](const char* left, const char* gap, const char* symbol, const char* sub, const char* times,
                            const char* end) {
    std::string words = left + line(0, 4, symbol, sub, times);
    words.append(gap).append(line(5, 8, symbol, sub, times));
    words.append(gap).append(line(9, 12, symbol, sub, times));
    words.append(gap).append(line(13, 15, symbol, sub, times));
    return words.append(end);
  };
  EXPECT_NE(text.find(equation("\tY = ", "\n\t       ", "P", "", "*", "+ e\n")), std::string::npos) << text;
  EXPECT_NE(text.find(equation("\tP0 = ", "\n\t         ", "B", "0", "*", "+ r0\n")), std::string::npos) << text;
  EXPECT_NE(text.find(equation("\tB00 = ", "\n\t     ", "G", "00", "", "+ u00\n")), std::string::npos) << text;
}

TEST(Specification, EquationsWithoutTermsAreTheirRandomEffects) {
  startmodel({"Y", "X"}, {"Z"}, {});
  setmodel({{0, true, {{0, {}}, {1, {0}, false}}}, {2, true, {}}});
  const std::string text = specification(false);
  EXPECT_NE(text.find("\tP0 = B00 + B01*(Z) + r0\n\tP1 = r1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\tB00 = u00\n\tB01 = G010 \n"), std::string::npos) << text;
  EXPECT_NE(text.find("    Y = G010*Z+ r0 + r1*X+ u00 + e\n"), std::string::npos) << text;
}

TEST(Specification, ConstraintsInTableAndEquations) {
  schoolmodel();
  setconstraints({0, 1, -1, 0, 2, -2});
  const std::string text = specification(false);
  EXPECT_NE(text.find("Level-3          Specified\n   Coefficients           Predictors        Predictors"
                      "       Constraints\n"),
            std::string::npos);
  EXPECT_NE(text.find("    POOR, G001        1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("    POOR, G211        2\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n\tG001 = G010\n\tG210 = G211\n"), std::string::npos) << text;
}

struct FamilyCase {
  int nonlin;
  bool count;
  double fixsigma2;
  const char* heading;
  const char* equation;
  const char* variance;
};

class Families : public testing::TestWithParam<FamilyCase> {};

TEST_P(Families, HeadingEquationAndVariance) {
  const FamilyCase& c = GetParam();
  startmodel({"Y", "N"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  run.kind.nlrun = true;
  run.kind.nonlin = c.nonlin;
  run.kind.nlcount = c.count;
  run.kind.nlcntvar = 2;
  run.iter.fixsigma2 = c.fixsigma2;
  const std::string text = specification(false);
  EXPECT_NE(text.find(std::string("\n Specifications for this ") + c.heading + " KDR3 run\n"), std::string::npos);
  EXPECT_NE(text.find(std::string("\nLevel-1 Model\n\n") + c.equation + "P0 \n\nLevel-2"), std::string::npos) << text;
  EXPECT_NE(text.find(std::string("\nLevel-1 variance = ") + c.variance + "\n"), std::string::npos) << text;
  EXPECT_NE(text.find("    eta = G000+ r0 + u00 \n"), std::string::npos) << text;
  EXPECT_NE(text.find("  Method of estimation: full PQL\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    All, Families,
    testing::Values(FamilyCase{1, false, 0.0, "Overdispersed Bernoulli",
                               "\tProb(Y=1|B) = P\n\n\tlog[P/(1-P)] = ", "sigma^2/[P(1-P)]"},
                    FamilyCase{1, true, 1.0, "Binomial",
                               "\tE(Y|B) = N*P\n\tV(Y|B) = N*P(1-P)\n\n\tlog[P/(1-P)] = ", "1/[N*P(1-P)]"},
                    FamilyCase{2, false, 2.5, "Poisson", "\tE(Y|B) = L\n\tV(Y|B) = L\n\n\tlog[L] = ", "2.5/L"},
                    FamilyCase{2, true, 1.0, "Poisson", "\tE(Y|B) = N*L\n\tV(Y|B) = N*L\n\n\tlog[L] = ", "1/(N*L)"}));

// Three categories, one predictor, in an ordinal run: two cuts, one threshold behind the file's variables.
TEST(Specification, OrdinalEquations) {
  startmodel({"Y", "X", "THOLD2"}, {}, {});
  run.mdm.nvar1 = 2;
  run.kind.nonlin = 3;
  run.kind.ordinal = run.kind.mnrun = true;
  run.kind.ncat = 3;
  run.kind.categorylabel.reset(3);
  for (std::size_t k = 0; k < 3; ++k) run.kind.categorylabel[k].text[0] = static_cast<char>('1' + k);
  setmodel({{0, true, {{0, {0}}}}, {2, true, {{0, {0}}}}, {3, false, {}}});
  const std::string text = specification(false);
  EXPECT_NE(text.find("\tProb[R = 1|B]  = P'(1) = P(1)\n"
                      "\tProb[R <= 2|B] = P'(2) = P(1) + P(2)\n"
                      "\tProb[R <= 3|B] = 1.0\n\n\twhere\n\n"
                      "\tP(1) = Prob[Y(1) = 1|B]\n\tP(2) = Prob[Y(2) = 1|B]\n\n"
                      "\tlog[P'(1)/(1 - P'(1))] = B0 + B1*(X) \n"
                      "\tlog[P'(2)/(1 - P'(2))] = B0 + B1*(X) + d(2) \n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("\tP0 = B00 + r0\n\tP1 = B10 + r1\n\n\nLevel-3"), std::string::npos) << text;
  EXPECT_EQ(text.find("Mixed Model"), std::string::npos);
  ASSERT_EQ(run.coef.gammanames3.size(), 3U);
  EXPECT_STREQ(run.coef.gammanames3[2].text, "          d(2)");
  EXPECT_STREQ(run.coef.gammanames1[2].text, "        THOLD2,   ");
}

// Three categories, the last one the reference: two equation sets, told apart by the category at every place.
TEST(Specification, MultinomialEquationsAndTables) {
  startmodel({"Y", "X"}, {}, {});
  run.kind.nonlin = 3;
  run.kind.ncat = 3;
  run.kind.neqsets = 2;
  run.kind.categorylabel.reset(3);
  for (std::size_t k = 0; k < 3; ++k) run.kind.categorylabel[k].text[0] = static_cast<char>('1' + k);
  run.kind.mnrun = true;
  run.iter.fixsigma2 = 1.0;
  setmodel({{0, true, {{0, {0}}}}, {2, false, {{0, {0}, false}}}});
  const std::string text = specification(false);
  EXPECT_NE(text.find("\nLevel-1 Model\n\n"
                      "\tProb[Y(1) = 1|B] = P(1)\n"
                      "\tProb[Y(2) = 1|B] = P(2)\n"
                      "\tProb[Y(3) = 1|B] = P(3) = 1 - P(1) - P(2)\n\n"
                      "\tlog[P(1)/P(3)] = B0(1) + B1(1)*(X) \n"
                      "\tlog[P(2)/P(3)] = B0(2) + B1(2)*(X) \n"
                      "\nLevel-2 Model\n\n"
                      "\tP0(1) = B00(1) + r0(1)\n\tP1(1) = B10(1) \n\n"
                      "\tP0(2) = B00(2) + r0(2)\n\tP1(2) = B10(2) \n"),
            std::string::npos)
      << text;

  FixedDegrees degrees;
  degreesoffreedom(degrees);
  const Array<double> gamma(4), V(4);
  const double tau[4] = {1, 0, 0, 1}, chisq[2] = {30, 30};
  const long long df[2] = {40, 40};
  const std::string fixed = capturedtable(false, [&] {
    fixedtable({gamma, V, degrees}, TableKind::estimates, PassKind::categories);
  });
  EXPECT_NE(fixed.find("-\nFor Category 1\n For       INTRCPT1, P0\n"), std::string::npos) << fixed;
  EXPECT_NE(fixed.find("Unable to compute\n\nFor Category 2\n For       INTRCPT1, P0\n"), std::string::npos) << fixed;
  EXPECT_EQ(capturedtable(false, [&] { tautable(Tau::pi, MatrixTitle::plain, false, 2, tau); }),
            "\ntau(pi)\n INTRCPT1,P0(1)      1.00000       0.00000 \n INTRCPT1,P0(2)      0.00000       1.00000 \n\n");
  EXPECT_NE(capturedtable(false, [&] { tautable(Tau::beta, MatrixTitle::plain, false, 2, tau); })
                .find(" INTRCPT1         INTRCPT1        \n INTRCPT2,B00(1) INTRCPT2,B00(2)\n"
                      "    1.00000         0.00000     \n"),
            std::string::npos);
  EXPECT_NE(capturedtable(false,
                          [&] {
                            variancetable(Tau::pi, {2, tau, chisq, df, 1.0});
                          })
                .find(" INTRCPT1(2),      r0      1.00000       1.00000      40      30.00000    >.500\n"),
            std::string::npos);
}

TEST(Symbols, MeasurementModels) {
  startmodel({"Y"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  run.mdm.mdmtype = 3;
  const double tau = 2;
  EXPECT_EQ(capturedtable(false, [&] { tautable(Tau::pi, MatrixTitle::plain, false, 1, &tau); }),
            "\nsigma^2(e)\n INTRCPT1,Psi0      2.00000 \n\n");
  EXPECT_EQ(run.sym.symsub, "mti");
  EXPECT_EQ(run.sym.symsub2, "ti");
  EXPECT_EQ(run.sym.symsub3, "i");
}

TEST(SummaryDeathTest, TooManyCoefficients) {
  std::vector<std::string> names{"Y"};
  for (int i = 1; i <= 500; ++i) names.push_back(std::string("X").append(std::to_string(i)));
  startmodel(names, {}, {});
  run.id.waitseconds = -1;
  std::vector<TestCoefficient> coefficients;
  for (int v = 2; v <= 501; ++v) coefficients.push_back({v, true, {}});
  setmodel(coefficients);
  buildsummary();  // 500 fit
  coefficients.insert(coefficients.begin(), {0, true, {}});
  setmodel(coefficients);
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        buildsummary();
      },
      testing::ExitedWithCode(100), "Model is too big for the program!");
}

// Every table, row and heading that opens in an HTML report closes in it, in order; cells and inline tags apart.
std::string nestingfault(const std::string& html) {
  static const std::vector<std::string> watched{"html", "body", "table", "tbody", "tr", "h1", "h2", "h3", "h4", "h5"};
  std::vector<std::string> open;
  for (std::size_t at = html.find('<'); at != std::string::npos; at = html.find('<', at + 1)) {
    const bool closing = html[at + 1] == '/';
    std::size_t end = at + (closing ? 2 : 1);
    const std::size_t start = end;
    while (std::isalnum(static_cast<unsigned char>(html[end]))) ++end;
    const std::string tag = html.substr(start, end - start);
    if (std::find(watched.begin(), watched.end(), tag) == watched.end()) continue;
    if (!closing) {
      open.push_back(tag);
    } else if (open.empty() || open.back() != tag) {
      return "closed too early: " + html.substr(at, 60);
    } else {
      open.pop_back();
    }
  }
  return open.empty() ? "" : "left open: " + open.back();
}

TEST(Html, WholeReportIsWellNested) {
  schoolmodel();
  run.model.center1[2] = 1;
  run.out.wgtvar1 = 2;
  run.out.deviance = 1.0;
  run.model.hypothesisrows[0] = 1;
  run.model.hypothesisrows[1] = 2;
  run.model.contrasts.reset(18);
  run.model.contrasts[0] = run.model.contrasts[6] = run.model.contrasts[12] = 1.0;  // test 2 is not independent
  FixedDegrees degrees;
  double gamma[6] = {1, 2, 3, 4, 5, 6}, V[36] = {}, tau[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1}, values[3] = {1, 40, 0};
  for (int i = 0; i < 5; ++i) V[i * 7] = 1.0;
  const long long df[3] = {80, 80, 0}, df3[3] = {19, 19, -79};
  const Array<double> effects = arrayof({1, 2, 3, 4, 5, 6}), variances = variancesof(arrayof({V, V + 36}), 6);
  const std::string html = captured(true, [&] {
    setsymbols();
    makerowlabels();
    writeheader();
    writespecification();
    degreesoffreedom(degrees);
    fixedtable({effects, variances, degrees}, TableKind::estimates, PassKind::linear);
    run.kind.nlrun = true;
    ratiotable({effects, variances, degrees}, TableKind::estimates);
    tautable(Tau::pi, MatrixTitle::plain, false, 2, tau);
    tautable(Tau::beta, MatrixTitle::plain, false, 3, tau);
    correlationtable(Tau::beta, 3, tau);
    reliabilitytable(Tau::pi, 2, values);
    variancetable(Tau::pi, {2, tau, values, df, 1.0});
    variancetable(Tau::beta, {3, tau, values, df3, 1.0});
    hypothesistest(6, gamma, V, 6);
    modelstatistics(-100.0, 2);
  });
  EXPECT_EQ(nestingfault(html), "");
  EXPECT_EQ(html.find("nan"), std::string::npos);
  EXPECT_NE(html.find("are not independent"), std::string::npos);
}

}  // namespace
}  // namespace kdr
