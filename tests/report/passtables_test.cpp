#include "report/passtables.h"

#include <gtest/gtest.h>

#include "driver/runrecord.h"
#include "estimate/inference/modelstatistics.h"
#include "estimate/inference/teststatistics.h"
#include "report/enginetables.h"
#include "reportfixture.h"

namespace kdr {
namespace {

Array<double> filled(std::size_t n, double value) {
  Array<double> values(n);
  values.fill(value);
  return values;
}

// One random intercept: taus of order 1, one fixed effect.
PassResults resultsof(PassKind kind) {
  startmodel({"Y"}, {}, {});
  run.model.outcome.family = kind == PassKind::linear       ? Family::normal
                             : kind == PassKind::categories ? Family::ordinal
                                                            : Family::bernoulli;
  setmodel({{0, true, {{0, {0}}}}});
  PassResults results;
  results.kind = kind;
  results.macro = kind == PassKind::linear ? 0 : 4;
  if (kind == PassKind::identity) results.fixsigma2 = 1.5;
  results.iteration = 7;
  results.loglik = -12.5;
  results.est.gammahat = filled(1, 2.0);
  results.est.taupi = filled(1, 3.0);
  results.est.taubeta = filled(1, 4.0);
  results.est.sigma2 = 1.5;
  results.errors.asked = results.errors.known = true;
  results.errors.taupi = filled(1, 0.25);
  results.errors.taubeta = filled(1, 0.5);
  results.errors.sigma2 = 0.125;
  results.reliabilities = {filled(1, 0.75), filled(1, 0.5), 90, 20};
  results.degrees.df.reset(1);
  results.degrees.df[0] = 10;
  results.degrees.rough.reset(1);
  results.covariance = filled(1, 1.0);
  results.robust = filled(1, 4.0);
  results.tests.level2 = {variancetest(20, 50.0)};
  results.tests.level3 = {variancetest(20, 60.0)};
  results.tests.units2 = 100;
  results.tests.units3 = 19;
  complete(results, run.model, countsof(run.mdm));
  return results;
}

// The pieces in the order in which they stand; none of them a second time, and none of the `absent` ones.
void expectpieces(const std::string& text, const std::vector<const char*>& pieces,
                  const std::vector<const char*>& absent) {
  std::size_t at = 0;
  for (const char* piece : pieces) {
    const std::size_t found = text.find(piece, at);
    ASSERT_NE(found, std::string::npos) << piece << " behind\n" << text.substr(0, at) << "\n~~~\n" << text.substr(at);
    at = found + std::string_view(piece).size();
  }
  for (const char* piece : absent) EXPECT_EQ(text.find(piece), std::string::npos) << piece << text;
}

std::string printed(const PassResults& results, bool html = false) {
  return capturedtable(html, [&] { passtables(results); });
}

constexpr const char* loglik = "function at iteration 7 = -1.250000E+01";
constexpr const char* standard = "INTRCPT3, G000      2.000000    1.000000";

TEST(PassTables, SayHowAPassEndedAndWhatCannotBeComputed) {
  PassResults results = resultsof(PassKind::linear);
  // An iteration on the way says nothing of an end and has no fixed effects.
  results.stopped = false;
  expectpieces(capturedtable(false, [&] { iterationtables(results); }), {"ITERATION 7", "Random level-2", loglik},
               {"stopped", "fixed effects"});
  results.stopped = true;
  expectpieces(printed(results), {"(with robust"}, {"moderate to"});
  results.fewunits = true;
  expectpieces(printed(results), {"(with robust", "having a moderate to\nlarge number of level 3 units."}, {});

  results.ending = Ending::limit;
  results.errors.known = false;
  results.reliabilities.units2 = 0;
  results.robust = {};
  expectpieces(printed(results),
               {"WARNING: the iterations were stopped prior to convergence.\nYou may want",
                "Standard errors for sigma^2, tau(pi), and tau(beta) are not computable.\n\n",
                " sigma^2 = ", " The tau(pi) reliabilities cannot be computed\n", standard,
                "\nThe robust standard errors cannot be computed for this model.\n", "level-1 and level-2 variance"},
               {"Standard error of", "Random level-1", "with robust"});
  results.ending = Ending::keyboard;
  run.model.restrictions.fixsigma2 = results.fixsigma2 = 1.5;
  expectpieces(printed(results),
               {" Iterations terminated prematurely from the keyboard.\n", "\n sigma^2 =      1.50000\n"},
               {"level-1,  "});
}

// Without full output the identity pass shows nothing; no errors are missed where the taus stand still.
TEST(PassTables, OfPassesOnTheWay) {
  const PassResults first = resultsof(PassKind::identity);
  run.out.fulloutput = false;
  EXPECT_EQ(printed(first), "");
  PassResults last = resultsof(PassKind::populationaverage);
  last.errors.known = false;
  last.fixsigma2 = 1.5;
  expectpieces(printed(last), {loglik}, {"not computable", "sigma^2"});
}

TEST(EngineTables, SayWhatCannotBeComputed) {
  PassResults results = resultsof(PassKind::laplace6);
  run.model.outcome.family = Family::bernoulli;
  results.reliabilities = {};
  expectpieces(capturedtable(true, [&] { laplacetables(results, false); }),
               {" The Tau(pi) reliabilities cannot be computed\n", " The Tau(beta) reliabilities cannot be computed\n"},
               {"The likelihood at Laplace"});
  results.kind = PassKind::quadrature;
  results.warnings = {"WARNING: one.", "WARNING: two."};
  results.errors.taubeta.reset(0);
  expectpieces(
      capturedtable(false, [&] { quadraturetables(results); }),
      {"QUADRATURE\n    Iteration 7\n\n", "WARNING: one.\nWARNING: two.\n", "Standard error of tau(pi)", "4.00000",
       "The standard errors of Tau(beta) cannot be computed.  This is\n"
       "probably due to one or more of the random effects having a zero variance.\n",
       standard},
      {"Standard error of tau(beta)"});
}

TEST(LeastSquaresTables, SayWhatCannotBeComputed) {
  resultsof(PassKind::linear);
  LeastSquaresResults results;
  results.gamma = filled(1, 2.0);
  results.vgamma = filled(1, 0.5);
  results.sigma2 = 2.0;
  results.loglik = {};
  complete(results, countsof(run.mdm));
  expectpieces(capturedtable(true, [&] { leastsquarestables(results); }),
               {"<h3>Least Squares Estimates</h3>\n", "The robust standard errors cannot be computed",
                "likelihood cannot be computed: the model leaves no residual.<br>\n"},
               {"with robust", "Deviance"});
}

}  // namespace
}  // namespace kdr
