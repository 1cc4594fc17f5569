#include "nonlinear/laplacereport.h"

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "linear/variancefiles.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/matrixtables.h"
#include "report/variancetables.h"

namespace kdr {

namespace {

struct TauRows {
  int n;
  const Array<double>&tau, &errors, &reliabilities;
  int used, total;  // units behind the reliabilities
};

void taublocks(Tau which, const TauRows& rows) {
  tautable(which, MatrixTitle::plain, false, rows.n, rows.tau.data());
  tautable(which, MatrixTitle::standarderror, false, rows.n, rows.errors.data());
  correlationtable(which, rows.n, rows.tau.data());
  if (rows.used == 0) {
    report("\n The Tau(%s) reliabilities cannot be computed\n", which == Tau::pi ? "pi" : "beta");
    return;
  }
  reliabilitytable(which, rows.n, rows.reliabilities.data());
  if (rows.used != rows.total) partialdatanote("reliability estimates", rows.used, rows.total);
}

}  // namespace

void laplacetables(const LaplaceResult& result, const FixedDegrees& degrees) {
  if (result.end != LaplaceEnd::estimated) return;
  rewindreport();
  report2("\fRESULTS FOR NON-LINEAR MODEL WITH THE LOGIT LINK FUNCTION: Laplace Model\n(macro iteration %d)\n",
          "<h2>Results for Unit-Specific Model, Laplace6 Estimation<br><small>Iteration %d</small></h2>",
          result.iteration);
  const Parameters& x = result.estimates;
  taublocks(Tau::pi, {x.q, x.taupi, result.setaupi, result.rel2, result.nrel2, run.mdm.nunits2});
  taublocks(Tau::beta, {x.r, x.taubeta, result.setaubeta, result.rel3, result.nrel3, run.mdm.nunits3});

  const Array<double> variances = variancesof(result.vgamma, x.g);
  const FixedEffects effects{x.gamma, variances, degrees};
  fixedtable(effects, TableKind::laplace, PassKind::pql);
  ratiotable(effects, TableKind::laplace);
  if (run.model.nhypotheses != 0) hypothesistest(x.g, x.gamma.data(), result.vgamma.data(), x.g);
  if (!result.finalcall)
    reportline("The likelihood at Laplace iteration %d is %E", result.iteration + 1, result.loglik);
}

void laplacefailed() {
  rewindreport();
  reportline("Fisher scoring is unable to compute a maximum likehihood estimate within");
  reportline("the parameter space.  Unable to produce Laplace results.");
  reportbreak();
}

void writelaplacefiles(const LaplaceResult& result, const PassResults& before) {
  const Parameters& x = result.estimates;
  Estimates est;
  est.taupi = x.taupi.copy();
  est.taubeta = x.taubeta.copy();
  if (result.end == LaplaceEnd::noiterations) {
    writetaufile(laplacetaufile, est, before.errors, false);
    writegammafile(laplacegammafile, x.gamma, before.covariance);
    return;
  }
  TauErrors errors;
  errors.order = static_cast<int>(x.ntaupi() + x.ntaubeta());
  errors.covariance = result.taucovariance.copy();
  writetaufile(laplacetaufile, est, errors, false);
  writegammafile(laplacegammafile, x.gamma, result.vgamma);
}

}  // namespace kdr
