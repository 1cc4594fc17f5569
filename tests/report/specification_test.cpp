#include "report/specification.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <tuple>

#include "driver/runrecord.h"
#include "report/equations.h"
#include "report/matrixtables.h"
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
  EXPECT_STREQ(run.model.coef.gammanames1[0].text, "     SES slope, P1");
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
  const auto count = [&](const std::string& words) {
    int found = 0;
    for (std::size_t at = 0; (at = text.find(words, at)) != std::string::npos; ++at) ++found;
    return found;
  };
  for (const std::string number : {"5", "9", "13"})
    for (const auto& [indent, symbol, times] :
         {std::tuple("\n\t       ", "P", "*"), {"\n\t         ", "B0", "*"}, {"\n\t     ", "G00", ""}})
      EXPECT_EQ(count(indent + std::string("+ ") + symbol + number + times + "(X" + number + ") "), 1)
          << symbol << number;
  EXPECT_EQ(count("\n\t     "), 9) << text;
  for (const char* end : {"+ P15*(X15) + e\n", "+ B015*(X15) + r0\n", "+ G0015(X15) + u00\n"})
    EXPECT_EQ(count(end), 1) << end;
}

TEST(Specification, EquationsWithoutTermsAreTheirRandomEffects) {
  startmodel({"Y", "X"}, {"Z"}, {});
  setmodel({{0, true, {{0, {}}, {1, {0}, false}}}, {2, true, {}}});
  const std::string text = specification(false);
  EXPECT_NE(text.find("\tP0 = B00 + B01*(Z) + r0\n\tP1 = r1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\tB00 = u00\n\tB01 = G010 \n"), std::string::npos) << text;
  EXPECT_NE(text.find("    Y = G010*Z+ r0 + r1*X+ u00 + e\n"), std::string::npos) << text;
}

TEST(Specification, FamiliesHeadingEquationAndVariance) {
  const struct {
    Outcome outcome;
    double fixsigma2;
    const char *heading, *equation, *variance;
  } cases[] = {{{Family::binomial, 0, true, 2},
                1.0,
                "Binomial",
                "\tE(Y|B) = N*P\n\tV(Y|B) = N*P(1-P)\n\n\tlog[P/(1-P)] = ",
                "1/[N*P(1-P)]"},
               {{Family::poisson, 0, false, 2}, 2.5, "Poisson", "\tE(Y|B) = L\n\tV(Y|B) = L\n\n\tlog[L] = ", "2.5/L"}};
  for (const auto& c : cases) {
    startmodel({"Y", "N"}, {}, {});
    setmodel({{0, true, {{0, {0}}}}});
    run.model.outcome = c.outcome;
    run.model.restrictions.fixsigma2 = c.fixsigma2;
    const std::string text = specification(false);
    for (const std::string& words : {std::string("\n Specifications for this ") + c.heading + " KDR3 run\n",
                                     std::string("\nLevel-1 Model\n\n") + c.equation + "P0 \n\nLevel-2",
                                     std::string("\nLevel-1 variance = ") + c.variance + "\n"})
      EXPECT_NE(text.find(words), std::string::npos) << words << text;
  }
}

TEST(Symbols, OtherKindsOfStudies) {
  startmodel({"Y"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}});
  run.mdm.mdmtype = MdmType::measuredgrowth;
  const double tau = 2;
  EXPECT_EQ(capturedtable(false, [&] { tautable(Tau::pi, MatrixTitle::plain, false, 1, &tau); }),
            "\nsigma^2(e)\n INTRCPT1,Psi0      2.00000 \n\n");
  EXPECT_EQ(run.sym.symsub, "mti");
  EXPECT_EQ(run.sym.symsub2, "ti");
  EXPECT_EQ(run.sym.symsub3, "i");
  run.mdm.mdmtype = MdmType::growth;
  EXPECT_NE(specification(true).find("<i>&pi;</i><sub><small><i>0ij</i></small></sub> = "), std::string::npos);
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

}  // namespace
}  // namespace kdr
