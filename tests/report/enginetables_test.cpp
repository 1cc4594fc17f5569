// The sections of the report on Laplace-6 and quadrature, and their variance files.
#include "report/enginetables.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "driver/runrecord.h"
#include "linear/variancefiles.h"
#include "report/reportfixture.h"

namespace {

using namespace kdr;

Array<double> arrayof(std::initializer_list<double> values) {
  Array<double> array(values.size());
  std::copy(values.begin(), values.end(), array.begin());
  return array;
}

FixedDegrees degrees() {
  FixedDegrees made;
  made.df.reset(2);
  made.rough.reset(2);
  made.df[0] = 19;
  made.df[1] = 900;
  return made;
}

// An intercept and a slope random at level 2, the intercept random at level 3.
PassResults made() {
  startmodel({"PASS", "SES"}, {}, {});
  setmodel({{0, true, {{0, {0}}}}, {2, true, {{0, {0}, false}}}});
  run.kind.nonlin = 1;
  run.kind.nlrun = true;
  run.coef.ntaupi = 2;
  run.coef.ntaubeta = 1;
  PassResults results;
  results.kind = PassKind::laplace6;
  results.est.taupi = arrayof({0.5, 0.1, 0.1, 0.25});
  results.est.taubeta = arrayof({0.75});
  results.est.gammahat = arrayof({1.0, -0.5});
  results.loglik = -1234.5;
  results.iteration = 7;
  results.degrees = degrees();
  results.errors.asked = results.errors.known = true;
  results.errors.order = 4;
  results.errors.covariance = arrayof({.01, .001, .002, .003, .001, .02, .004, .005,  //
                                       .002, .004, .03, .006, .003, .005, .006, .04});
  results.errors.taupi = arrayof({0.1, 0.2, 0.2, 0.3});
  results.errors.taubeta = arrayof({0.4});
  results.covariance = arrayof({0.04, 0.01, 0.01, 0.09});
  results.reliabilities.level2 = arrayof({0.6, 0.3});
  results.reliabilities.level3 = arrayof({0.8});
  results.reliabilities.units2 = 90;
  results.reliabilities.units3 = 20;
  return results;
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

TEST(EngineTables, TextTablesStandInOrder) {
  const PassResults results = made();
  const std::string text = capturedtable(false, [&] { laplacetables(results, true); });
  expectinorder(
      text, {"\fRESULTS FOR NON-LINEAR MODEL WITH THE LOGIT LINK FUNCTION: Laplace Model\n(macro iteration 7)\n",
             "INTRCPT1,P0      0.50000       0.10000", "Standard errors of ", "INTRCPT1,P0      0.10000       0.20000",
             "(as correlations)", "0.600", "based on only 90 of 100", "0.75000", "Standard error of ", "0.40000",
             "0.800", " Final estimation of fixed effects\n (Unit-specific model)\n",
             "1.000000    0.200000      5.000       19", "-0.500000    0.300000     -1.667      900", "Odds",
             "The likelihood at Laplace iteration 8 is -1.234500E+03\n"});
  EXPECT_EQ(text.find("based on only 20"), std::string::npos);
}

TEST(EngineTables, HtmlFinalCallHasNoLikelihoodAndMissingReliabilitiesAreSaid) {
  PassResults results = made();
  results.reliabilities = {};
  const std::string html = capturedtable(true, [&] { laplacetables(results, false); });
  expectinorder(html, {"<h2>Results for Unit-Specific Model, Laplace6 Estimation<br><small>Iteration 7</small></h2>",
                       "\n The Tau(pi) reliabilities cannot be computed\n", "0.40000</td>",
                       "\n The Tau(beta) reliabilities cannot be computed\n", "(Unit-specific model)"});
  EXPECT_EQ(html.find("The likelihood at Laplace"), std::string::npos);
}

TEST(EngineTables, LaplaceFailureHasItsWords) {
  EXPECT_EQ(captured(false, [] { laplacefailed(); }),
            "Fisher scoring is unable to compute a maximum likehihood estimate within\n"
            "the parameter space.  Unable to produce Laplace results.\n\n");
}

TEST(EngineTables, QuadratureSaysItsWarningsAndWhyThereAreNoErrors) {
  PassResults results = made();
  results.kind = PassKind::quadrature;
  results.warnings = {"WARNING: one.", "WARNING: two."};
  results.errors.taubeta.reset(0);
  const std::string text = capturedtable(false, [&] { quadraturetables(results); });
  expectinorder(text, {"\fRESULTS FOR UNIT-SPECIFIC MODEL, ADAPTIVE GAUSSIAN QUADRATURE\n    Iteration 7\n\n",
                       "WARNING: one.\nWARNING: two.\n", "INTRCPT1,P0      0.50000       0.10000",
                       "Standard errors of ", "0.75000",
                       "The standard errors of Tau(beta) cannot be computed.  This is\n"
                       "probably due to one or more of the random effects having a zero variance.\n",
                       "1.000000    0.200000      5.000       19"});
}

TEST(EngineTables, VarianceFilesHoldEstimatesAndCovariances) {
  const auto contents = [](const char* path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    std::remove(path);
    return text.str();
  };
  const PassResults results = made();
  run.out.printvc = 1;
  writetaufile("enginetaus.dat", results.est, results.errors, false);
  EXPECT_EQ(contents("enginetaus.dat"),
            "      0.5000000       0.1000000 \n      0.1000000       0.2500000 \n      0.7500000 \n"
            "      0.0100000       0.0010000       0.0020000       0.0030000 \n"
            "      0.0010000       0.0200000       0.0040000       0.0050000 \n"
            "      0.0020000       0.0040000       0.0300000       0.0060000 \n"
            "      0.0030000       0.0050000       0.0060000       0.0400000 \n");
  const std::string gammas = "      1.0000000      -0.5000000 \n";
  writegammafile("enginegammas.dat", results.est.gammahat, results.covariance);
  EXPECT_EQ(contents("enginegammas.dat"),
            gammas + "  4.0000000E-02   1.0000000E-02 \n  1.0000000E-02   9.0000000E-02 \n");
  writegammafile("enginegammas.dat", results.est.gammahat, {});
  EXPECT_EQ(contents("enginegammas.dat"),
            gammas + " -1.0000000E+36  -1.0000000E+36 \n -1.0000000E+36  -1.0000000E+36 \n");
}

}  // namespace
