#include "estimate/linear/runpass.h"

#include <algorithm>
#include <cmath>

#include "estimate/inference/modelstatistics.h"
#include "estimate/linear/fixtau.h"
#include "estimate/linear/heterogeneous.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/recordunits.h"
#include "estimate/linear/restrictedfit.h"
#include "estimate/linear/results.h"
#include "estimate/linear/startingvalues.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The least-squares estimate into gammahat, and the residual variance.
Failure leastsquares(Pass& pass, double& variance) {
  const int g = pass.g;
  if (pass.nunits1 == 0) return norecordleft();
  if (pass.totalYY == 0.0)
    return failedwith("The outcome variable is all zeros!\n", "The outcome variable is all zeros!");
  if (collinear(pass.gramMM.data(), g) || invertsymmetric(g, pass.gramMM.data(), pass.est.vgamma.data()).result != 0)
    return failed(11);
  mulAB(pass.est.gammahat.data(), pass.est.vgamma.data(), pass.gramMY.data(), g, 1, g);

  Array<double> MMg(at(g));
  mulAB(MMg.data(), pass.gramMM.data(), pass.est.gammahat.data(), g, 1, g);
  double rss = pass.totalYY;
  for (int i = 0; i < g; ++i) rss -= pass.est.gammahat[i] * MMg[i];
  variance = std::max(rss, 0.0) / pass.nunits1;
  return {};
}

// The results of least squares, before the iterations.
Failure tellleastsquares(Pass& pass, double s) {
  constexpr double twopi = 6.283185307;
  const double n = pass.nunits1;
  LeastSquaresResults results;
  results.gamma = pass.est.gammahat.copy();
  results.vgamma = pass.est.vgamma.copy();
  results.sigma2 = s;
  results.robust = robustcovariance(pass, true);
  results.fewunits = fewunits(pass);
  if (s > 0.0) results.loglik = -(n + n * std::log(twopi * s)) / 2.0;
  complete(results, countsof(pass));
  if (storefailure(pass.store)) return storefailure(pass.store);
  tellobserver(pass.observer().leastsquares, results);
  return {};
}

// A tau that the iterations cannot start from is repaired, and shown again.
Failure settlestart(Pass& pass, Tau which, const StartMoments& moments, StartingEvent event) {
  const FixTau code = pass.control().fixtau(which);
  if (usablecovariance(pass.est.tau(which).data(), pass.order(which)) && code != FixTau::always) return {};
  if (Failure failure = fixtau(pass, which, ofthe(which, moments.taupi, moments.taubeta), code)) return failure;
  pass.repaired = true;
  event.part = which == Tau::pi ? StartingEvent::Part::repairedtaupi : StartingEvent::Part::repairedtaubeta;
  tellobserver(pass.observer().starting, event);
  return {};
}

// Starting values, from outside when there are any, else from moments.
Failure startfromdata(Pass& pass) {
  StartMoments moments{Array<double>(square(pass.p)), Array<double>(square(pass.b)), false};
  const Estimates* given = pass.analysis->start;
  if (given != nullptr) {
    pass.est.gammahat = given->gammahat.copy();
    pass.est.taupi = given->taupi.copy();
    pass.est.taubeta = given->taubeta.copy();
    pass.est.sigma2 = pass.fixsigma2 != 0.0 ? pass.fixsigma2 : given->sigma2;
    pass.nusable1 = pass.nunits1;
    pass.nusable2 = pass.mdm().nunits2;
    pass.nusable3 = pass.mdm().nunits3;
  } else if (Failure failure = leastsquarestart(pass, moments)) {
    return failure;
  }
  applyheld(pass.model(), Tau::pi, pass.est);
  if (given != nullptr) applyheld(pass.model(), Tau::beta, pass.est);
  StartingEvent event{
      StartingEvent::Part::taupi, given == nullptr, moments.shared, pass.nusable1, pass.nusable2, pass.est};
  tellobserver(pass.observer().starting, event);
  if (Failure failure = settlestart(pass, Tau::pi, moments, event)) return failure;
  if (given == nullptr && !moments.shared)
    if (Failure failure = starttaubeta(pass, moments)) return failure;
  event.part = StartingEvent::Part::taubeta;
  tellobserver(pass.observer().starting, event);
  if (Failure failure = settlestart(pass, Tau::beta, moments, event)) return failure;
  return pass.plan.hetit != 0 ? checkheterogeneous(pass) : Failure{};
}

// The estimates of the pass before. Without a record to spare they must be ones that the data tell apart. A first pass
// of its kind takes the fixed effects from its own data.
Failure startfromestimates(Pass& pass) {
  const Estimates& start = *pass.plan.start;
  if (!pass.plan.freshgamma) pass.est.gammahat = start.gammahat.copy();
  pass.est.taupi = start.taupi.copy();
  pass.est.taubeta = start.taubeta.copy();
  // The estimates may have been moved to another scale, which elements that are held do not follow.
  applyheld(pass.model(), Tau::pi, pass.est);
  applyheld(pass.model(), Tau::beta, pass.est);
  pass.est.sigma2 = pass.fixsigma2 != 0.0 ? pass.fixsigma2 : start.sigma2;
  const long long left = pass.nunits1 - static_cast<long long>(pass.mdm().nunits2) * pass.p;
  const bool known = pass.fixsigma2 != 0.0 || left > 0 || identified(pass);
  if (storefailure(pass.store)) return storefailure(pass.store);
  return known ? Failure{} : failed(16);
}

// Of iterations that failed, from the variance that least squares left: where sigma^2 has gone to 0, no predictor is at
// fault.
Failure explained(const Pass& pass, double variance, Failure failure) {
  constexpr double nothing = 1.0e-8;
  if (!failure || failure.row == abandoned || pass.fixsigma2 != 0.0 || pass.est.sigma2 > nothing * variance)
    return failure;
  return failedboth(
      "sigma^2 goes to 0: random and fixed effects together leave nothing of the outcome, and the likelihood has no\n"
      "maximum. Hold sigma^2 by FIXSIGMA2:, or leave out random effects.\n");
}

Failure iteratestage(Pass& pass, IterationState& state, Stage stage, int limit, double variance) {
  state.stage = stage;
  state.limit = limit;
  return explained(pass, variance, pass.plan.restricted ? iteraterestricted(pass, state) : iterate(pass, state));
}

}  // namespace

Failure beginpass(Pass& pass, const Analysis& analysis, const PassPlan& plan) {
  pass.analysis = &analysis;
  pass.plan = plan;
  pass.fixsigma2 = plan.fixsigma2;
  if (Failure failure = makedesign(pass)) return failure;
  pass.est.gammahat.reset(at(pass.g));
  pass.est.taupi.reset(square(pass.p));
  pass.est.taubeta.reset(square(pass.b));
  pass.est.vgamma.reset(square(pass.g));
  const std::size_t units = at(pass.mdm().nunits3);
  pass.dinv.reset(units, square(pass.b));
  pass.within.reset(units, square(pass.b));
  pass.vstar.reset(units, at(pass.b));
  pass.vright.reset(units, at(pass.b));
  return {};
}

Failure runpass(Pass& pass, IterationState& state, PassResults& results, const ImpliedVariance& impliedvariance) {
  const bool first = pass.plan.start == nullptr;
  if (first) tellobserver(pass.observer().dataread, pass.plan.kind, pass.nunits1);
  double s = 0.0;
  if (Failure failure = leastsquares(pass, s)) return failure;
  if (impliedvariance)
    if (Failure failure = impliedvariance(pass.fixsigma2)) return failure;
  if (pass.plan.leastsquares)
    if (Failure failure = tellleastsquares(pass, s)) return failure;
  if (Failure failure = first ? startfromdata(pass) : startfromestimates(pass)) return failure;
  tellobserver(pass.observer().iterationsbegin);
  startiterations(pass, state);
  if (pass.plan.hetit != 0) {
    startheterogeneous(pass, state);
    if (Failure failure = iteratestage(pass, state, Stage::heterogeneous, pass.plan.hetit, s)) return failure;
    if (Failure failure = heterogeneousresults(pass, state)) return failure;
  }
  if (pass.plan.limit == 0) {
    results.heterogeneous = true;
    results.parameters = parametercount(pass.model(), pass.mdm().nunits3);
    results.loglik = reached(state.likelihood);
    results.ending = state.ending;
    return {};
  }
  if (Failure failure = iteratestage(pass, state, Stage::ordinary, pass.plan.limit, s)) return failure;
  results = stageresults(pass, state);
  if (state.marginal.sums.failure()) return state.marginal.sums.failure();
  return storefailure(pass.store);
}

}  // namespace kdr
