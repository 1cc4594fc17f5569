// The report of a latent variable regression: its lines in both modes, and the model that it reads.
#include "report/latentreport.h"

#include <gtest/gtest.h>

#include "driver/constants.h"
#include "driver/runrecord.h"
#include "multirun/latentregression.h"
#include "report/reportfixture.h"

namespace kdr {
namespace {

// P0 = B00 + r0, P1 = B10 + r1; B00 on W, B10 on W and Z with intercept 1 or without, both random at level 3.
void twocoefficients(const std::vector<int>& first, const std::vector<int>& second) {
  startmodel({"MATH", "TIME"}, {}, {"W", "LONGNAME"});
  setmodel({{0, true, {{0, first}}}, {2, true, {{0, second}}}});
  run.coef.pinames.reset(2);
  for (std::size_t i = 0; i < 2; ++i) run.coef.pinames[i] = run.coef.betanames1[i];
  run.out.lvrroles.reset(2);
  run.out.lvrroles[0] = 2;  // the predictor
  run.out.lvrroles[1] = 1;
}

// b = 0.5 with variance 0.04; two terms; 20 level-3 units.
LatentRegression onepair(std::vector<int> terms, int df) {
  LatentRegression regression;
  regression.computable = true;
  regression.outcomes = {1};
  regression.predictors = {0};
  regression.terms = std::move(terms);
  regression.df = df;
  const std::size_t nW = regression.terms.size();
  regression.b.reset(1);
  regression.b[0] = 0.5;
  regression.GO.reset(nW);
  regression.Gadj.reset(nW);
  regression.Vadj.reset(nW * nW);
  regression.Vdiff.reset(nW * nW);
  for (std::size_t i = 0; i < nW; ++i) {
    regression.GO[i] = 3.0 + static_cast<double>(i);
    regression.Gadj[i] = 1.0;
    regression.Vadj[i * (nW + 1)] = 0.25;
    regression.Vdiff[i * (nW + 1)] = 0.01;
  }
  regression.R.reset(1);
  regression.R[0] = 2.25;
  regression.Vb.reset(1);
  regression.Vb[0] = 0.04;
  return regression;
}

const std::string rule = ruleof(78);

// t(17) of 2.0 has p 0.062, of 2.5 p 0.023.
TEST(LatentReport, Text) {
  twocoefficients({0, 1}, {0, 2});
  EXPECT_EQ(capturedtable(false,
                          [] {
                            latentreport(onepair({0, 2}, 17));
                          }),
            "\n\nLatent Variable Regression Results\n\n"
            "\tB10 = G100* + G101*(LONGNAME) + G102*(B00) + u10*\n\n" +
                rule +
                "     Outcome            Predictor         Estimated    Standard T-ratio P-value\n"
                "                                          Coefficient  Error\n" +
                rule +
                "     TIME/INTRCPT2,B10  INTRCPT3,G100*     1.000000    0.50000    2.000  0.062\n"
                "                        LONGNAME,G101*     1.000000    0.50000    2.000  0.062\n"
                "                             B00,G102*     0.500000    0.20000    2.500  0.023\n" +
                rule + "\n Latent Variable Regression: Comparison of Original and Adjusted Coefficients\n" + rule +
                "     Outcome       Predictor    Original    Adjusted     Difference  Standard\n"
                "                                Coefficient Coefficient              Error of\n"
                "                                                                     Difference\n" +
                rule +
                "     TIME/INTRCPT2,B10  INTRCPT3    3.00000     1.00000     2.00000     0.10000\n"
                "                        LONGNAME    4.00000     1.00000     3.00000     0.10000\n" +
                rule + "\n Var(u*)\n\t    TIME/INTRCPT2,B10      2.25000\n");
}

TEST(LatentReport, Html) {
  twocoefficients({0, 1}, {0, 2});
  const std::string text = capturedtable(true, [] { latentreport(onepair({0, 2}, 17)); });
  const auto cell = [](const char* style, const char* value) {
    return std::string("<td align=right valign=bottom ") + style + ">" + value + "</td>";
  };
  const std::string plain = styleplain, bottom = stylebottom;
  for (const std::string& part : {
           std::string(
               "<h4>Latent Variable Regression Results</h4>&nbsp;&nbsp;&nbsp;&nbsp;"
               "<i>&beta;</i><sub><small><i>10</i></small></sub> = "
               "<i>&gamma;</i><sub><small><i>100</i></small></sub><sup>*</sup>"
               " + <i>&gamma;</i><sub><small><i>101</i></small></sub>*(LONGNAME)"
               " + "
               "<i>&gamma;</i><sub><small><i>102</i></small></sub>*(<i>&beta;</i><sub><small><i>00</i></small></sub>)"
               " + <i>u</i><sub><small><i>10</i></small></sub><sup>*</sup><br>\n"),
           std::string("<td align=right ") + stylerule + ">Estimated<br>Coefficient</td>\n",
           cell(styleplain, "     1.000000") + "\n" + cell(styleplain, "  0.500000") + "\n" +
               cell(styleplain, "   2.000") + "\n" + cell(styleplain, "0.062") + "</tr>\n",
           cell(stylebottom, "     0.500000") + "\n" + cell(stylebottom, "  0.200000"),
           std::string("<h5>Latent Variable Regression: Comparison of Original and Adjusted Coefficients</h5>"),
           cell(stylebottom, "    4.00000"),
           std::string("<br>Var(<i>u</i><sup>*</sup>)<br>&nbsp;&nbsp;&nbsp;&nbsp;    TIME/INTRCPT2,<i>&beta;</i>"
                       "<sub><small><i>10</i></small></sub>&nbsp;&nbsp;      2.25000<br>\n"),
       })
    EXPECT_NE(text.find(part), std::string::npos) << part << "\nin\n" << text;
  EXPECT_EQ(text.find("----"), std::string::npos);
}

// The first term keeps its own name where no equation has the intercept; without degrees of freedom there is no
// p-value.
TEST(LatentReport, WithoutInterceptOrDegreesOfFreedom) {
  twocoefficients({1}, {1, 2});
  const std::string text = capturedtable(false, [] { latentreport(onepair({1, 2}, 0)); });
  EXPECT_NE(text.find("\tB10 = G100*(W) + G101*(LONGNAME) + G102*(B00) + u10*\n"), std::string::npos) << text;
  EXPECT_NE(text.find("     TIME/INTRCPT2,B10         W,G100*     1.000000    0.50000    2.000     NC\n"),
            std::string::npos);
  LatentRegression unknown = onepair({1, 2}, 17);
  unknown.Vb[0] = unknown.Vadj[0] = missingcode;
  unknown.Vadj[3] = 0.0;
  const std::string none = capturedtable(false, [&] { latentreport(unknown); });
  EXPECT_NE(none.find("W,G100*     1.000000         NC       NC     NC\n"), std::string::npos) << none;
  EXPECT_NE(none.find("LONGNAME,G101*     1.000000    0.00000       NC     NC\n"), std::string::npos) << none;
  EXPECT_EQ(capturedtable(false, [] { latentreport({}); }), "Unable to compute latent variable regression.\n");
}

// Terms and fixed effects of the model, with one gamma constrained to equal another: 0 1 2 and 1 again.
TEST(LatentReport, ReadsTheModel) {
  twocoefficients({0, 1}, {0, 1});
  setconstraints({0, 1, 0, -1});
  const LatentModel model = latentmodel();
  ASSERT_EQ(model.equations.size(), 2U);
  const auto shown = [](const std::vector<LatentTerm>& equation) {
    std::string text;
    for (const LatentTerm& term : equation)
      text += std::to_string(term.variable) + ":" + std::to_string(term.gamma) + " ";
    return text;
  };
  EXPECT_EQ(shown(model.equations[0]), "0:0 1:1 ");
  EXPECT_EQ(shown(model.equations[1]), "0:2 1:1 ");
  EXPECT_EQ(model.nunits3, 20);
  EXPECT_EQ(std::vector<int>(model.roles.begin(), model.roles.end()), (std::vector<int>{2, 1}));
}

}  // namespace
}  // namespace kdr
