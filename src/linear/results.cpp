#include "linear/results.h"

#include "driver/runrecord.h"
#include "kernel/matrix.h"
#include "linear/inference.h"
#include "linear/weightedcovariance.h"
#include "report/degreesoffreedom.h"

namespace kdr {

PassResults iterationresults(Pass& pass, IterationState& state) {
  PassResults results;
  results.kind = pass.plan.kind;
  results.macro = pass.plan.macro;
  results.heterogeneous = state.hetstate == 1;
  results.tausstand = pass.plan.tausstand();
  results.fixsigma2 = pass.fixsigma2;
  results.stopped = state.stopped();
  results.iteration = state.iteration;
  results.ending = state.ending;
  results.errors = tauerrors(pass, state.fisher, state.likelihood);
  results.loglik = state.likelihood.current;
  if (!results.heterogeneous && !results.tausstand) results.reliabilities = reliabilities(pass);
  results.est = run.est.copy();
  return results;
}

PassResults stageresults(Pass& pass, IterationState& state) {
  PassResults results = iterationresults(pass, state);
  degreesoffreedom(results.degrees);
  if (run.kind.weighted && !results.heterogeneous) {
    results.covariance = weightedcovariance(pass);
  } else {
    results.covariance = run.est.vgamma.copy();
    scale(results.covariance.data(), pass.g, pass.g, pass.g, run.est.sigma2);
  }
  if (results.heterogeneous) return results;
  if (pass.plan.kind != PassKind::identity) {
    results.robust = robustcovariance(pass, false);
    results.fewunits = fewlevel3units();
  }
  results.tests = variancetests(pass);
  return results;
}

}  // namespace kdr
