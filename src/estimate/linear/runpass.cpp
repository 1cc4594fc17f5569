#include "estimate/linear/runpass.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/fixtau.h"
#include "estimate/linear/heterogeneous.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/results.h"
#include "estimate/linear/startingvalues.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "report/degreesoffreedom.h"
#include "report/matrixtables.h"
#include "report/passtables.h"
#include "report/startvaluesfile.h"

namespace kdr {

namespace {

// The least-squares estimate into gammahat. Returns the residual variance.
double leastsquares(const Pass& pass) {
  const int g = pass.g;
  if (pass.totalYY == 0.0) {
    report("The outcome variable is all zeros!");
    std::printf("The outcome variable is all zeros!\n");
    stoprun(100);
  }
  if (collinear(pass.gramMM.data(), g) || invertsymmetric(g, pass.gramMM.data(), run.est.vgamma.data()).result != 0)
    fail(11);
  mulAB(run.est.gammahat.data(), run.est.vgamma.data(), pass.gramMY.data(), g, 1, g);

  Array<double> MMg(at(g));
  mulAB(MMg.data(), pass.gramMM.data(), run.est.gammahat.data(), g, 1, g);
  double rss = pass.totalYY;
  for (int i = 0; i < g; ++i) rss -= run.est.gammahat[i] * MMg[i];
  return std::max(rss, 0.0) / run.mdm.nunits1;
}

// The section on least squares, before a linear run's iterations.
void reportleastsquares(Pass& pass, double s) {
  constexpr double twopi = 6.283185307;
  const double n = run.mdm.nunits1;
  LeastSquaresResults results;
  results.gamma = run.est.gammahat.copy();
  results.vgamma = run.est.vgamma.copy();
  results.sigma2 = s;
  results.robust = robustcovariance(pass, true);
  results.fewunits = fewlevel3units();
  if (s > 0.0) results.loglik = -(n + n * std::log(twopi * s)) / 2.0;
  FixedDegrees degrees;
  degreesoffreedom(degrees);
  leastsquarestables(results, degrees);
}

// A tau that the iterations cannot start from is repaired, and shown again.
void settlestart(Array<double>& t, int n, const Array<double>& moments, int& code, Tau which) {
  const bool always = code == 5;
  if (always) code = 0;
  if (usablecovariance(t.data(), n) && !always) return;
  fixtau(t.data(), n, moments, code, run.est.sigma2, which);
  if (run.out.fulloutput) tautable(which, MatrixTitle::renewed, true, n, t.data());
}

// Starting values, from the file of STARTVALS: when there is one, else from moments.
void startfromdata(Pass& pass) {
  StartMoments moments{Array<double>(square(pass.p)), Array<double>(square(pass.b)), false};
  const bool fromfile = havestartvalues();
  if (fromfile) {
    readstartvalues();
    if (pass.fixsigma2 != 0.0) run.est.sigma2 = pass.fixsigma2;
    pass.nusable1 = run.mdm.nunits1;
    pass.nusable2 = run.mdm.nunits2;
    pass.nusable3 = run.mdm.nunits3;
  } else {
    leastsquarestart(pass, moments);
  }
  applytaupi(run.est.taupi.data());
  if (fromfile) applytaubeta(run.est.taubeta.data());
  if (!fromfile)
    report2(" For starting values, data from %d level-1 and %d level-2 records were used\n",
            "For starting values, data from %d level-1 and %d level-2 records were used<br>\n", pass.nusable1,
            pass.nusable2);
  if (run.out.fulloutput) {
    sectionheading("STARTING VALUES", "Starting Values", 15);
    report(" %s(0) = %12.5f\n\n", run.sym.symvar1.c_str(), run.est.sigma2);
    tautable(Tau::pi, MatrixTitle::plain, true, pass.p, run.est.taupi.data());
  }
  settlestart(run.est.taupi, pass.p, moments.taupi, run.control.fixtau2, Tau::pi);
  if (!fromfile && !moments.shared) starttaubeta(pass, moments);
  if (run.out.fulloutput) tautable(Tau::beta, MatrixTitle::plain, true, pass.b, run.est.taubeta.data());
  settlestart(run.est.taubeta, pass.b, moments.taubeta, run.control.fixtau3, Tau::beta);
  if (pass.plan.hetit != 0) checkheterogeneous(pass);
}

// The estimates of the pass before. Without a record to spare they must be ones that the data tell apart. A first pass
// of its kind takes the fixed effects from its own data.
void startfromestimates(Pass& pass) {
  const Estimates& start = *pass.plan.start;
  if (!pass.plan.freshgamma) run.est.gammahat = start.gammahat.copy();
  run.est.taupi = start.taupi.copy();
  run.est.taubeta = start.taubeta.copy();
  // The estimates may have been moved to another scale, which elements that are held do not follow.
  applytaupi(run.est.taupi.data());
  applytaubeta(run.est.taubeta.data());
  run.est.sigma2 = pass.fixsigma2 != 0.0 ? pass.fixsigma2 : start.sigma2;
  const long long left = run.mdm.nunits1 - static_cast<long long>(run.mdm.nunits2) * pass.p;
  if (pass.fixsigma2 == 0.0 && left <= 0 && !identified(pass)) fail(16);
}

void announceiterations() {
  if (run.report.stream != nullptr) std::fflush(run.report.stream);
  if (reportisstdout()) return;
  std::printf("Starting values computed.  Iterations begun.\n");
  std::printf("Should you wish to terminate the iterations prior to convergence, enter cntl-c\n");
  std::fflush(stdout);
}

void iteratestage(Pass& pass, IterationState& state, int hetstate, int limit) {
  state.hetstate = hetstate;
  state.limit = limit;
  iterate(pass, state);
}

}  // namespace

void beginpass(Pass& pass, const PassPlan& plan) {
  pass.plan = plan;
  pass.fixsigma2 = plan.fixsigma2;
  makedesign(pass);
  run.est.gammahat.reset(at(pass.g));
  run.est.taupi.reset(square(pass.p));
  run.est.taubeta.reset(square(pass.b));
  run.est.vgamma.reset(square(pass.g));
  const std::size_t units = at(run.mdm.nunits3);
  pass.dinv.reset(units, square(pass.b));
  pass.within.reset(units, square(pass.b));
  pass.vstar.reset(units, at(pass.b));
  pass.vright.reset(units, at(pass.b));
}

PassResults runpass(Pass& pass, IterationState& state, const std::function<double()>& impliedvariance) {
  if (pass.plan.start == nullptr) deletionnote();
  if (pass.plan.kind != PassKind::linear && pass.plan.start == nullptr) markreport();
  const double s = leastsquares(pass);
  if (pass.plan.kind == PassKind::identity) pass.fixsigma2 = impliedvariance();
  if (pass.plan.kind == PassKind::linear && run.out.fulloutput) reportleastsquares(pass, s);
  if (pass.plan.start == nullptr) {
    startfromdata(pass);
  } else {
    startfromestimates(pass);
  }
  announceiterations();
  startiterations(pass, state);
  if (pass.plan.hetit != 0) {
    startheterogeneous(state);
    iteratestage(pass, state, 1, pass.plan.hetit);
    heterogeneousresults(pass, state);
    state.hettaupi = {};
  }
  if (pass.plan.limit == 0) {
    PassResults none;
    none.heterogeneous = true;
    none.loglik = state.likelihood.current;
    none.ending = state.ending;
    return none;
  }
  iteratestage(pass, state, 2, pass.plan.limit);
  return stageresults(pass, state);
}

}  // namespace kdr
