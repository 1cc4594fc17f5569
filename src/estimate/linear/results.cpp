#include "estimate/linear/results.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>

#include "core/formatted.h"
#include "estimate/inference/modelstatistics.h"
#include "estimate/inference/smallsample.h"
#include "estimate/inference/teststatistics.h"
#include "estimate/linear/clusterrobust.h"
#include "estimate/linear/designmoments.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/point.h"
#include "estimate/linear/profile.h"
#include "estimate/linear/restrictedfit.h"
#include "estimate/linear/weightedcovariance.h"
#include "kernel/sizes.h"

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
  if (!pass.plan.restricted) results.errors = tauerrors(pass, state.fisher);
  results.loglik = reached(state.likelihood);
  if (!results.heterogeneous && !results.tausstand()) results.reliabilities = reliabilities(pass);
  results.est = pass.est.copy();
  return results;
}

namespace {

constexpr const char* nodegrees =
    "The information of the variance components has no inverse: their standard errors, and degrees of freedom from it, "
    "cannot be computed. The degrees of freedom are counts.";

// Where a maximum lies that no scoring step reaches.
std::string edgewords(const char* tau, int order, int lacking) {
  if (lacking == 0) return "";
  if (lacking == order) return std::string(tau) + (order == 1 ? " is 0" : " is 0 in all elements");
  return formatted("%s is singular (rank %d of %d)", tau, order - lacking, order);
}

// Told, as the standard errors and degrees of freedom depend on what is made of it.
void telledge(const Pass& pass, const MarginalFit& marginal, PassResults& results) {
  const std::string pi = edgewords("tau(pi)", pass.p, marginal.lacking[0]);
  const std::string beta = edgewords("tau(beta)", pass.b, marginal.lacking[1]);
  if (pi.empty() && beta.empty()) return;
  results.warnings.push_back("The restricted likelihood has its maximum at the edge: " + pi +
                             (pi.empty() || beta.empty() ? "" : ", ") + beta + ".");
}

// The F tests of the fixed effects by the method of the run.
Denominator denominatorof(const VarianceUncertainty& known, DegreesMethod method) {
  return [&known, method](const double* L, int q) {
    return method == DegreesMethod::kenwardroger ? kenwardroger(known, L, q) : faicornelius(known, L, q);
  };
}

// Degrees of freedom and covariance of the fixed effects by the method of the run.
void smallsample(const Pass& pass, const VarianceUncertainty& known, PassResults& results) {
  const DegreesMethod method = pass.control().ddf;
  results.degrees = {Array<double>(at(pass.g)), Array<char>(at(pass.g)), method};
  Array<double> l(at(pass.g));
  for (std::size_t i = 0; i < at(pass.g); ++i) {
    l.fill(0.0);
    l[i] = 1.0;
    results.degrees.df[i] = satterthwaite(known, l.data());
  }
  results.covariance = method == DegreesMethod::kenwardroger ? adjustedcovariance(known) : known.Phi.copy();
}

// What a restricted fit, or one with such degrees of freedom, has beyond others.
std::optional<VarianceInformation> marginalresults(Pass& pass, IterationState& state, PassResults& results) {
  const bool restricted = pass.plan.restricted, asked = pass.control().ddf != DegreesMethod::counts;
  if (!restricted && !asked && !pass.control().clusterrobust && !pass.control().profile) return {};
  if (!restricted) {
    state.marginal.est = pass.est.copy();
    if (makemarginalsums(pass, state.marginal.sums)) return {};  // the caller asks the store
    state.marginal.value = marginalvalue(state.marginal.sums, pass.est);
  }
  if (!restricted && !asked) return {};
  std::optional<VarianceInformation> known =
      varianceinformation(pass, state.marginal.sums, state.marginal.est, state.marginal.value);
  if (restricted) {
    results.restricted = true;
    results.est = state.marginal.est.copy();
    results.covariance = results.est.covariance();
    results.errors.asked = true;
    if (known) results.errors = tauerrors(pass, *known);
    telledge(pass, state.marginal, results);
    results.errors.stepleft = std::sqrt(std::max(state.marginal.decrement, 0.0));
  }
  if (!known) results.warnings.emplace_back(nodegrees);
  if (known && asked) smallsample(pass, known->fixed, results);
  return known;
}

// Intervals by the profile of the run's likelihood.
void profileresults(Pass& pass, IterationState& state, PassResults& results) {
  if (!pass.control().profile || !state.marginal.value.known) return;
  const Criterion criterion = results.restricted ? Criterion::restricted : Criterion::full;
  tellobserver(pass.observer().stagebegins);  // the interrupt ends the profile, not the run
  results.profile = profileintervals(pass, {state.marginal.sums, criterion, state.marginal.est}, results.notes);
  tellobserver(pass.observer().stageends);
}

void shareresults(Pass& pass, PassResults& results) {
  const Shares& asked = pass.control().shares;
  if (asked.asked || asked.null) takeshares(pass, designmoments(pass), results);
}

// The tests by them. Effects that rest on one level-3 unit have no error.
void clustertests(const ClusterRobust& known, int level, PassResults& results) {
  testbyF(results.robusteffects, [&](const double* L, int q) { return clustertest(known, L, q); });
  const int g = known.g;
  Array<double> l(at(g));
  bool resting = false;
  for (int i = 0; i < g; ++i) {
    l.fill(0.0);
    l[i] = 1.0;
    if (!restsonone(known, l.data())) continue;
    resting = true;
    for (int j = 0; j < g; ++j) results.robust[i * g + j] = results.robust[j * g + i] = 0.0;
    EffectTest& row = results.robusteffects.rows[at(i)];
    row = effecttest(row.coefficient, 0.0, row.df, false, DegreesMethod::satterthwaite);
  }
  if (resting)
    results.warnings.push_back(
        formatted("Fixed effects that rest on one level-%d unit alone have no bias-reduced robust standard error: that "
                  "unit says nothing of their error.",
                  level));
}

// Bias-reduced robust errors in the place of the others.
std::optional<ClusterRobust> clusterresults(Pass& pass, IterationState& state, PassResults& results) {
  if (!pass.control().clusterrobust || !state.marginal.value.known) return {};
  const int g = pass.g;
  results.robust = {};
  if (independentunits(pass) <= g) return {};
  ClusterRobust made = clusterrobust(pass, state.marginal.sums, state.marginal.est, state.marginal.value);
  results.robust = made.covariance.copy();
  results.fewunits = false;
  results.robustdegrees = {Array<double>(at(g)), Array<char>(at(g)), DegreesMethod::satterthwaite};
  Array<double> l(at(g));
  for (int i = 0; i < g; ++i) {
    l.fill(0.0);
    l[i] = 1.0;
    results.robustdegrees.df[i] = clusterdegrees(made, l.data());
  }
  return made;
}

}  // namespace

PassResults stageresults(Pass& pass, IterationState& state) {
  if (state.stage == Stage::ordinary) renewposterior(pass);
  PassResults results = iterationresults(pass, state);
  if (pass.model().weighted && !results.heterogeneous) {
    results.covariance = weightedcovariance(pass);
  } else {
    results.covariance = pass.est.covariance();
  }
  if (!results.heterogeneous && pass.plan.robust) {
    results.robust = robustcovariance(pass, false);
    results.fewunits = fewunits(pass);
  }
  std::optional<VarianceInformation> known =
      results.heterogeneous ? std::nullopt : marginalresults(pass, state, results);
  const std::optional<ClusterRobust> clusters =
      results.heterogeneous ? std::nullopt : clusterresults(pass, state, results);
  if (!results.heterogeneous) profileresults(pass, state, results);
  if (!results.heterogeneous && pass.plan.shares) shareresults(pass, results);
  complete(results, pass.model(), countsof(pass));
  if (clusters) clustertests(*clusters, pass.mdm().twolevel() ? 2 : 3, results);
  if (known && pass.control().ddf != DegreesMethod::counts)
    testbyF(results.effects, denominatorof(known->fixed, pass.control().ddf));
  if (known && pass.control().ddf != DegreesMethod::counts)
    results.uncertainty = std::make_shared<const VarianceUncertainty>(std::move(known->fixed));
  if (!results.heterogeneous) results.tests = variancetests(pass);
  return results;
}

}  // namespace kdr
