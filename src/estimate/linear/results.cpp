#include "estimate/linear/results.h"

#include "estimate/inference/modelstatistics.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/point.h"
#include "estimate/linear/weightedcovariance.h"

namespace kdr {

namespace {

// The posterior of the random effects at the estimates as they stand. The last step left that of the estimates before
// it, and where the random effects are large against sigma, the new fixed effects beside the old posterior means leave
// residuals that are wrong by a multiple of sigma. A tau without an inverse leaves the posterior as it is.
void renewposterior(Pass& pass) {
  ScaledInverses inverses;
  if (!scaleinverses(pass, pass.est, inverses)) return;
  PosteriorSums sums;
  [[maybe_unused]] const PosteriorResult result = posteriorsweep(pass, inputat(pass.est, inverses, true), sums);
}

}  // namespace

PassResults iterationresults(Pass& pass, IterationState& state) {
  PassResults results;
  results.kind = pass.plan.kind;
  results.macro = pass.plan.macro;
  results.heterogeneous = state.stage == Stage::heterogeneous;
  results.fixsigma2 = pass.fixsigma2;
  results.stopped = state.stopped();
  results.iteration = state.iteration;
  results.ending = state.ending;
  results.errors = tauerrors(pass, state.fisher);
  results.loglik = state.likelihood.current;
  if (!results.heterogeneous && !results.tausstand()) results.reliabilities = reliabilities(pass);
  results.est = pass.est.copy();
  return results;
}

PassResults stageresults(Pass& pass, IterationState& state) {
  if (state.stage == Stage::ordinary) renewposterior(pass);
  PassResults results = iterationresults(pass, state);
  if (pass.model().weighted && !results.heterogeneous) {
    results.covariance = weightedcovariance(pass);
  } else {
    results.covariance = pass.est.covariance();
  }
  if (!results.heterogeneous && pass.plan.kind != PassKind::identity) {
    results.robust = robustcovariance(pass, false);
    results.fewunits = fewlevel3units(pass);
  }
  complete(results, pass.model(), countsof(pass));
  if (!results.heterogeneous) results.tests = variancetests(pass);
  return results;
}

}  // namespace kdr
