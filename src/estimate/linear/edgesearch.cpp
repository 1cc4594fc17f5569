#include "estimate/linear/edgesearch.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "estimate/ascent/conescoring.h"
#include "estimate/linear/fisher.h"
#include "estimate/linear/marginalsurface.h"
#include "estimate/linear/point.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The log-likelihood over the variance components, with the fixed effects that are best there.
struct Surface {
  Pass& pass;
  MarginalSums sums{};
  Estimates at{};  // of the point asked for last, with its fixed effects

  [[nodiscard]] MarginalValue look(const Array<double>& point) {
    at = estimatesat(sums, point, at);
    MarginalValue value = marginalvalue(sums, at);
    if (value.known) at.gammahat = value.gamma.copy();
    return value;
  }
  Evaluation evaluate(const Array<double>& point, bool derivatives) {
    const MarginalValue value = look(point);
    Evaluation there;
    there.usable = value.known;
    there.value = value.loglik;
    if (!value.known || !derivatives) return there;
    const std::size_t P = point.size();
    there.scale.reset(P);
    // The average information, which costs less and brings the steps closer; the expected one where data without any
    // variation along an element leave it none.
    for (const Derivatives wanted : {Derivatives::step, Derivatives::all}) {
      MarginalDerivatives made = marginalderivatives(sums, at, value, Criterion::full, wanted);
      there.score = std::move(made.score);
      there.information = std::move(wanted == Derivatives::step ? made.average : made.expected);
      for (std::size_t e = 0; e < P; ++e) there.scale[e] = there.information[e * P + e];
      if (*std::min_element(there.scale.begin(), there.scale.end()) > 0.0) break;
    }
    return there;
  }
};

ConeProblem problemof(Pass& pass, Surface& surface) {
  ConeProblem problem;
  problem.orders = {pass.p, pass.b};
  Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  problem.nfree = restriction.nfree;
  problem.free = std::move(restriction.free);
  problem.evaluate = [&surface](const Array<double>& point) { return surface.evaluate(point, true); };
  problem.test = [&surface](const Array<double>& point) { return surface.evaluate(point, false); };
  problem.stop = [&pass] { return pass.observer().wantsstop(); };
  return problem;
}

// Leaves in surface.at a point that steps with an inverse of the taus can go on from: the one reached, or where it lies
// at the edge, one beside it. A tau on the way to that of the start has full rank, too. False when there is none.
bool stepinside(Surface& surface, const ConeResult& reached, const Array<double>& start) {
  const auto fits = [&](const Array<double>& point) {
    return surface.look(point).known && usableestimates(surface.pass, surface.at);
  };
  if (!reached.atedge()) return fits(reached.point);
  Array<double> point;
  // Less where the step is one out of the other side, then more, where rounding hides what it lifts.
  for (const double share : {1.0, 0.5, 0.25, 0.1, 0.01, 4.0, 16.0, 100.0, 1000.0}) {
    point = reached.point.copy();
    for (std::size_t e = 0; e < point.size(); ++e) point[e] += share * reached.lift[e];
    if (fits(point)) return true;
  }
  for (const double share : {1.0e-6, 1.0e-4, 1.0e-2, 0.1, 1.0}) {
    for (std::size_t e = 0; e < point.size(); ++e) point[e] = reached.point[e] + share * (start[e] - reached.point[e]);
    if (fits(point)) return true;
  }
  return false;
}

}  // namespace

bool nearedge(Pass& pass) {
  FisherWork fisher;
  sizefisher(pass, fisher);
  if (fisher.restriction.nfree == 0) return false;
  if (!fisherpoint(pass, pass.est, fisher) || !invertinformation(fisher, false)) return true;
  const Array<double> step = scoringdirection(fisher);
  return dot(step.data(), fisher.score.data(), step.size()) < 0.0 || !stepstays(pass, pass.est, step, 1.0);
}

EdgeSearch searchedge(Pass& pass, const Estimates& start, double least) {
  EdgeSearch search;
  Surface surface{pass};
  surface.at = pass.est.copy();
  const ConeProblem problem = problemof(pass, surface);
  if (problem.nfree == 0) return search;
  search.failed = true;
  if ((search.failure = makemarginalsums(pass, surface.sums))) return search;
  const MarginalValue before = surface.look(variancepoint(surface.sums, pass.est));
  if (!before.known) return search;
  ConePolicy policy;
  policy.decrement = std::min(policy.decrement, std::max(least, 1.0e-10));
  const Array<double> from = variancepoint(surface.sums, start);
  const ConeResult reached = climbcone(problem, policy, from);
  const bool found = reached.end != AscentEnd::unusable && stepinside(surface, reached, from);
  if ((search.failure = surface.sums.failure()) || !found) return search;
  search.failed = reached.end != AscentEnd::converged && reached.end != AscentEnd::stopped;
  const MarginalValue value = surface.look(variancepoint(surface.sums, surface.at));
  if (value.loglik > before.loglik + least) {
    search.gain = value.loglik - before.loglik;
    search.est = std::move(surface.at);
  }
  return search;
}

}  // namespace kdr
