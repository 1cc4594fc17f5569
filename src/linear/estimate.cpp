#include "linear/estimate.h"

#include <cmath>
#include <cstdio>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "linear/datapass.h"
#include "linear/fixtau.h"
#include "linear/inference.h"
#include "linear/iteration.h"
#include "linear/startingvalues.h"
#include "linear/variancefiles.h"
#include "report/degreesoffreedom.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/matrixtables.h"
#include "report/modelstatistics.h"

namespace kdr {

namespace {

std::size_t at(int i) { return static_cast<std::size_t>(i); }
std::size_t square(int n) { return at(n) * at(n); }

// A section heading: text over a rule of its length, or <h3>.
void sectionheading(const char* text, const char* html, int rule) {
  report2("\n %s\n", "<h3>", text);
  reporthtml("%s</h3>\n", html);
  reportrule(rule);
}

// Phase 1: dimensions, arrays.
void beginpass(Pass& pass, FixedDegrees& degrees) {
  run.pass.stopflag = run.pass.keyboardstop = 0;
  makedesign(pass);
  run.est.gammahat.reset(at(pass.g));
  run.est.taupi.reset(square(pass.p));
  run.est.taubeta.reset(square(pass.b));
  run.est.vgamma.reset(square(pass.g));
  const std::size_t units = at(run.mdm.nunits3);
  pass.dinv.reset(units * square(pass.b));
  pass.vstar.reset(units * at(pass.b));
  pass.vlsq.reset(units * at(pass.b));
  degreesoffreedom(degrees);
}

// Phase 3: the least-squares estimate into gammahat, with its report.
void leastsquares(Pass& pass, FixedDegrees& degrees) {
  const int g = pass.g;
  if (pass.totalYY == 0.0) {
    report("The outcome variable is all zeros!");
    std::printf("The outcome variable is all zeros!\n");
    stoprun(100);
  }
  double condition = 0.0;
  Array<double> work(packedsize(g) + 3);
  if (isbadcov(g, pass.gramMM.data(), g, &condition) ||
      syminverse(g, pass.gramMM.data(), g, run.est.vgamma.data(), g, work.data()) != 0)
    fail(11);
  mulAB(run.est.gammahat.data(), run.est.vgamma.data(), pass.gramMY.data(), g, 1, g);
  degreesoffreedom(degrees);

  Array<double> MMg(at(g));
  mulAB(MMg.data(), pass.gramMM.data(), run.est.gammahat.data(), g, 1, g);
  double rss = pass.totalYY;
  for (int i = 0; i < g; ++i) rss -= run.est.gammahat[at(i)] * MMg[at(i)];
  const double n = run.mdm.nunits1;
  const double s = rss / n;
  if (!run.out.fulloutput) return;

  constexpr double twopi = 6.283185307;
  const double loglik = -(n + n * std::log(twopi * s)) / 2.0;
  sectionheading("Least Squares Estimates", "Least Squares Estimates", 23);
  report("\n %s = %12.5f\n\n", run.sym.symvar1.c_str(), s);
  fixedtable(degrees, TableKind::leastsquares, run.est.vgamma.data(), run.est.gammahat.data(), g, s);
  robustcovariance(pass, degrees, true);
  reportline(" The least-squares likelihood value = %E", loglik);
  reportline(" Deviance = %12.5f", -2.0 * loglik);
  reportline(" Number of estimated parameters = %4d", g + 1);
}

// A tau that the iterations cannot start from is repaired, and shown again.
void settlestart(Array<double>& t, int n, const Array<double>& moments, int& code, TauStage stage) {
  const bool always = code == 5;
  if (always) code = 0;
  if (usablecovariance(t.data(), n) && !always) return;
  fixtau(t.data(), n, moments, code, run.est.sigma2, stage);
  if (!run.out.fulloutput) return;
  if (stage == TauStage::pi) {
    taupitable(MatrixTitle::renewed, true, n, t.data());
  } else {
    taubetatable(MatrixTitle::renewed, true, n, t.data());
  }
}

// Phase 5: starting values.
void startingvalues(Pass& pass) {
  StartMoments moments;
  leastsquarestart(pass, moments);
  applytaupi(run.est.taupi.data());
  report2(" For starting values, data from %d level-1 and %d level-2 records were used\n",
          "For starting values, data from %d level-1 and %d level-2 records were used", pass.nusable1, pass.nusable2);
  reportbreak();
  if (run.out.fulloutput) {
    sectionheading("STARTING VALUES", "Starting Values", 15);
    report(" %s(0) = %12.5f\n\n", run.sym.symvar1.c_str(), run.est.sigma2);
    taupitable(MatrixTitle::plain, true, pass.p, run.est.taupi.data());
  }
  settlestart(run.est.taupi, pass.p, moments.taupi, run.iter.fixtau2, TauStage::pi);
  starttaubeta(pass, moments);
  if (run.out.fulloutput) taubetatable(MatrixTitle::plain, true, pass.b, run.est.taubeta.data());
  settlestart(run.est.taubeta, pass.b, moments.taubeta, run.iter.fixtau3, TauStage::beta);
}

// Phase 6: the stages of iteration. An ordinary run has an empty heterogeneous stage first.
void beginiterations(Pass& pass, IterationState& state) {
  std::fflush(run.report.stream);
  if (!reportisstdout()) {
    std::printf("Starting values computed.  Iterations begun.\n");
    std::printf("Should you wish to terminate the iterations prior to convergence, enter cntl-c\n");
    std::fflush(stdout);
  }
  state.likelihood = {missingcode, missingcode};
  pass.likeconstant = run.mdm.nunits1 * (0.5 * std::log(6.2831853));
  startiterations(pass, state);
}

// Phase 7: results of the ordinary stage.
void stageresults(Pass& pass, IterationState& state, const FixedDegrees& degrees) {
  const int g = pass.g;
  Estimates& est = run.est;
  fixedtable(degrees, TableKind::estimates, est.vgamma.data(), est.gammahat.data(), g, est.sigma2);
  ratiotable(degrees, TableKind::estimates, est.vgamma.data(), est.gammahat.data(), g, est.sigma2);
  if (run.model.nhypotheses) {
    Array<double> covariance = est.vgamma.copy();
    for (double& v : covariance) v *= est.sigma2;
    hypothesistest(g, est.gammahat.data(), covariance.data(), g);
  }
  robustcovariance(pass, degrees, false);
  if (run.out.printvc != 0) {
    writegammafile("gamvcr.dat", est.vgammarobust, est.vgammarobust[0] == missingcode ? 1.0 : est.sigma2);
    writetaufile("tauvc.dat", pass, state.fisher, true);
    writegammafile("gamvc.dat", est.vgamma, est.sigma2);
  }
  VarianceTests tests;
  variancetests(pass, tests);
  variancetesttables(pass, tests);
}

}  // namespace

void estimate() {
  Pass pass;
  FixedDegrees degrees;
  IterationState state;
  beginpass(pass, degrees);
  datapass(pass);
  leastsquares(pass, degrees);
  startingvalues(pass);

  beginiterations(pass, state);
  holdinterrupts();
  state.hetstate = 2;
  state.limit = run.iter.numit;
  iterate(pass, state);
  releaseinterrupts();
  stageresults(pass, state, degrees);

  modelstatistics(state.likelihood.current, state.hetstate);
  if (run.out.printvc != 0) listvariancefiles();
  freestore(pass.store);
}

}  // namespace kdr
