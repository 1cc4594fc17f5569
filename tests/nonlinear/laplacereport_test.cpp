// The report and the variance files of a sixth-order Laplace estimation.
#include "nonlinear/laplacereport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "driver/runrecord.h"
#include "report/reportfixture.h"

namespace {

using namespace kdr;

Array<double> arrayof(std::initializer_list<double> values) {
  Array<double> array(values.size());
  std::copy(values.begin(), values.end(), array.begin());
  return array;
}

// An intercept and a slope random at level 2, the intercept random at level 3.
LaplaceResult made() {
  startmodel({"PASS", "SES"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}, {2, true, {{0, {0}, false}}}});
  run.kind.nonlin = 1;
  run.kind.nlrun = true;
  LaplaceResult result;
  result.end = LaplaceEnd::estimated;
  result.estimates = {2, 1, 2, arrayof({0.5, 0.1, 0.1, 0.25}), arrayof({0.75}), arrayof({1.0, -0.5})};
  result.loglik = -1234.5;
  result.iteration = 7;
  result.taucovariance = arrayof({.01, .001, .002, .003, .001, .02, .004, .005,  //
                                  .002, .004, .03, .006, .003, .005, .006, .04});
  result.vgamma = arrayof({0.04, 0.01, 0.01, 0.09});
  result.setaupi = arrayof({0.1, 0.2, 0.2, 0.3});
  result.setaubeta = arrayof({0.4});
  result.rel2 = arrayof({0.6, 0.3});
  result.rel3 = arrayof({0.8});
  result.nrel2 = 90;
  result.nrel3 = 20;
  return result;
}

FixedDegrees degrees() {
  FixedDegrees made;
  made.df.reset(2);
  made.rough.reset(2);
  made.df[0] = 19;
  made.df[1] = 900;
  return made;
}

// The pieces of `text` in this order.
void expectinorder(const std::string& text, std::initializer_list<const char*> pieces) {
  std::size_t from = 0;
  for (const char* piece : pieces) {
    const std::size_t found = text.find(piece, from);
    ASSERT_NE(found, std::string::npos) << "no \"" << piece << "\" behind place " << from << " of\n" << text;
    from = found + 1;
  }
}

TEST(LaplaceReport, TextTablesStandInOrder) {
  const LaplaceResult result = made();
  const std::string text = capturedtable(false, [&] { laplacetables(result, degrees()); });
  expectinorder(
      text, {"\fRESULTS FOR NON-LINEAR MODEL WITH THE LOGIT LINK FUNCTION: Laplace Model\n(macro iteration 7)\n",
             "INTRCPT1,P0      0.50000       0.10000", "Standard errors of ", "INTRCPT1,P0      0.10000       0.20000",
             "(as correlations)", "0.600", "based on only 90 of 100", "0.75000", "Standard error of ", "0.40000",
             "0.800", " Final estimation of fixed effects\n (Unit-specific model)\n",
             "1.000000    0.200000      5.000       19", "-0.500000    0.300000     -1.667      900", "Odds",
             "The likelihood at Laplace iteration 8 is -1.234500E+03\n"});
  EXPECT_EQ(text.find("based on only 20"), std::string::npos);
}

TEST(LaplaceReport, HtmlFinalCallHasNoLikelihoodAndMissingReliabilitiesAreSaid) {
  LaplaceResult result = made();
  result.finalcall = true;
  result.nrel2 = result.nrel3 = 0;
  const std::string html = capturedtable(true, [&] { laplacetables(result, degrees()); });
  expectinorder(html, {"<h2>Results for Unit-Specific Model, Laplace6 Estimation<br><small>Iteration 7</small></h2>",
                       "\n The Tau(pi) reliabilities cannot be computed\n", "0.40000</td>",
                       "\n The Tau(beta) reliabilities cannot be computed\n", "(Unit-specific model)"});
  EXPECT_EQ(html.find("The likelihood at Laplace"), std::string::npos);
}

TEST(LaplaceReport, FailureHasItsWordsAndNoIterationsHaveNoTables) {
  EXPECT_EQ(captured(false, [] { laplacefailed(); }),
            "Fisher scoring is unable to compute a maximum likehihood estimate within\n"
            "the parameter space.  Unable to produce Laplace results.\n\n");
  LaplaceResult result = made();
  result.end = LaplaceEnd::noiterations;
  EXPECT_EQ(captured(false, [&] { laplacetables(result, degrees()); }), "");
}

TEST(LaplaceReport, FilesHoldEstimatesAndCovariances) {
  const auto contents = [](const char* path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  };
  LaplaceResult result = made();
  run.coef.ntaupi = 2;
  run.coef.ntaubeta = 1;
  run.out.printvc = 1;
  PassResults before;
  before.covariance = arrayof({9, 8, 8, 7});
  writelaplacefiles(result, before);
  const std::string taus = "      0.5000000       0.1000000 \n      0.1000000       0.2500000 \n      0.7500000 \n";
  const std::string gammas = "      1.0000000      -0.5000000 \n";
  EXPECT_EQ(contents("tauvcl6.dat"), taus +
                                         "      0.0100000       0.0010000       0.0020000       0.0030000 \n"
                                         "      0.0010000       0.0200000       0.0040000       0.0050000 \n"
                                         "      0.0020000       0.0040000       0.0300000       0.0060000 \n"
                                         "      0.0030000       0.0050000       0.0060000       0.0400000 \n");
  EXPECT_EQ(contents("gamvcl6.dat"), gammas + "  4.0000000E-02   1.0000000E-02 \n  1.0000000E-02   9.0000000E-02 \n");
  result.end = LaplaceEnd::noiterations;
  writelaplacefiles(result, before);
  EXPECT_EQ(contents("tauvcl6.dat"), taus);
  EXPECT_EQ(contents("gamvcl6.dat"), gammas + "  9.0000000E+00   8.0000000E+00 \n  8.0000000E+00   7.0000000E+00 \n");
  std::remove("tauvcl6.dat");
  std::remove("gamvcl6.dat");
}

}  // namespace
