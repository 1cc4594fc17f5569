#include "estimate/ascent/ascent.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kernel/spectrum.h"

namespace kdr {

namespace {

struct Climb {
  const AscentProblem& problem;
  const AscentSettings& settings;
  AscentResult& result;
  NewtonStep step{};
  double change = 0.0;  // of the value in the last iteration
  int settling = 0;
  bool exact = false;  // the information of the last accepted point is

  Evaluation evaluate(const Array<double>& point, Approach approach) {
    if (result.halted) return {};
    ++result.evaluations;
    return noted(problem.evaluate(point, approach));
  }
  Evaluation noted(Evaluation made) {
    if (!made.usable && problem.halted && problem.halted()) result.halted = true;
    return made;
  }
  void take(Array<double> point, Evaluation there) {
    problem.accepted();
    result.point = std::move(point);
    result.there = std::move(there);
    exact = !problem.exact;
    look();
  }
  void look() {
    step = newtonstep(problem, settings, result.there);
    result.decrement = step.decrement;
    result.least = step.least;
  }
  [[nodiscard]] bool settled() const { return step.decrement < settings.decrement && step.least >= -settings.saddle; }
  [[nodiscard]] bool saddle() const { return step.decrement < settings.decrement && step.least < -settings.saddle; }

  bool acceptable(const Evaluation& trial) const;
  bool attempt(const Array<double>& delta, double factor, Approach approach);
  bool renew();
  bool refine();
  bool newton();
  bool leavesaddle();
  bool totheedge();
  bool rearrange();
  bool last();
  AscentEnd run();
};

bool Climb::acceptable(const Evaluation& trial) const {
  if (!trial.usable) return false;
  if (trial.value >= result.there.value - settings.fall) return true;
  const NewtonStep next = newtonstep(problem, settings, trial);
  return next.least > settings.definite && next.decrement < settings.contraction * step.decrement;
}

bool Climb::attempt(const Array<double>& delta, double factor, Approach approach) {
  Array<double> point = result.point.copy();
  for (std::size_t i = 0; i < point.size(); ++i) point[i] += factor * delta[i];
  Evaluation trial = evaluate(point, approach);
  if (!acceptable(trial)) return false;
  change = trial.value - result.there.value;
  take(std::move(point), std::move(trial));
  return true;
}

// The accepted point anew, by its own findings: a fair comparison for the points around it.
bool Climb::renew() {
  Evaluation anew = evaluate(result.point, Approach::renewed);
  if (!anew.usable) return false;
  take(result.point.copy(), std::move(anew));
  return true;
}

// The exact information of the last accepted point, if that isn't at hand. False when it cannot be had.
bool Climb::refine() {
  if (exact) return true;
  ++result.evaluations;
  Evaluation anew = noted(problem.exact(result.point, result.there));
  if (!anew.usable) return false;
  exact = true;
  result.there = std::move(anew);
  look();
  return true;
}

bool Climb::newton() {
  for (bool anew = !problem.approaches;;) {
    const Array<double> delta = step.delta.copy();
    double factor = 1.0;
    for (int halving = 0; halving <= settings.halvings; ++halving, factor *= 0.5) {
      if (attempt(delta, factor, Approach::carried)) return true;
      if (problem.approaches && step.decrement > settings.fardecrement && attempt(delta, factor, Approach::modes))
        return true;
      if (!anew) break;
    }
    if (anew) return false;
    anew = true;
    if (!renew()) return false;
  }
}

// Along the direction of negative curvature, whichever side is higher. What leads uphill for a short way only, as next
// to a maximum close by, asks for a shorter step.
bool Climb::leavesaddle() {
  const Array<double> uphill = step.uphill.copy();
  Array<double> bestpoint;
  Evaluation best;
  double side = 0.0, factor = 1.0;
  for (int halving = 0; side == 0.0 && halving <= settings.halvings; ++halving, factor *= 0.5)
    for (const double sign : {1.0, -1.0}) {
      Array<double> point = result.point.copy();
      for (std::size_t i = 0; i < point.size(); ++i) point[i] += factor * sign * uphill[i];
      Evaluation trial = evaluate(point, Approach::carried);
      if (!trial.usable || !(trial.value > result.there.value)) continue;
      if (side != 0.0 && !(trial.value > best.value)) continue;
      side = sign;
      best = std::move(trial);
      bestpoint = std::move(point);
    }
  if (side == 0.0) return false;
  if (side > 0.0) {  // the other side was evaluated last
    best = evaluate(bestpoint, Approach::carried);
    if (!best.usable) return false;
  }
  change = best.value - result.there.value;
  take(std::move(bestpoint), std::move(best));
  return true;
}

// False: nothing goes to its edge.
bool Climb::totheedge() {
  if (!problem.edge) return false;
  Array<double> point = problem.edge(result.point, result.there);
  if (point.empty()) return false;
  Evaluation trial = evaluate(point, Approach::carried);
  if (!trial.usable || trial.value < result.there.value - settings.edgefall) return false;
  change = trial.value - result.there.value;
  take(std::move(point), std::move(trial));
  return true;
}

bool Climb::rearrange() {
  if (!problem.rearrange) return true;
  Array<double> point = result.point.copy();
  if (!problem.rearrange(point)) return true;
  Evaluation anew = evaluate(point, Approach::renewed);
  if (!anew.usable) return false;
  take(std::move(point), std::move(anew));
  return true;
}

// The evaluations at the end. False: they show that the maximum is elsewhere.
bool Climb::last() {
  if (problem.approaches)
    for (int i = 0; i < settings.finals; ++i)
      if (!renew()) return false;
  if (!refine()) return false;
  return step.decrement < settings.finaldecrement && step.least >= -settings.saddle;
}

AscentEnd Climb::run() {
  bool edgetried = false;
  int reopened = 0;
  double before = INFINITY;  // the decrement where the last iteration began
  for (;;) {
    if (!rearrange()) return AscentEnd::unusable;
    const bool quiet = std::fabs(change) < settings.settled || settling >= settings.settling;
    if (settled() && (result.iterations == 0 || quiet)) {
      if (!edgetried && totheedge()) {
        // Several may go, one after the other; what leads uphill from there is left by the saddle rule, once.
        if (!(step.least < -settings.saddle)) continue;
        edgetried = true;
        continue;
      }
      edgetried = true;
      if (last()) return step.least > settings.definite ? AscentEnd::converged : AscentEnd::notdefinite;
      if (++reopened > settings.reopenings)
        return step.least > settings.definite ? AscentEnd::nostep : AscentEnd::notdefinite;
      settling = 0;
    } else if (settled()) {
      ++settling;
    }
    if (result.iterations >= settings.iterations) return AscentEnd::limit;
    if (saddle() && !exact) {
      if (!refine()) return AscentEnd::notdefinite;
      continue;
    }
    if (step.decrement > settings.contraction * before) static_cast<void>(refine());
    before = step.decrement;
    const bool turned = saddle(), moved = turned ? leavesaddle() : newton();
    if (!moved && !exact && refine()) continue;
    if (!moved) return turned ? AscentEnd::notdefinite : AscentEnd::nostep;
    ++result.iterations;
    if (problem.iterated && problem.iterated(result.iterations, result.there.value)) return AscentEnd::stopped;
  }
}

}  // namespace

NewtonStep newtonstep(const AscentProblem& problem, const AscentSettings& settings, const Evaluation& there) {
  const std::size_t P = problem.count;
  std::vector<std::size_t> used;
  for (std::size_t i = 0; i < P; ++i)
    if (problem.held.empty() || !problem.held[i]) used.push_back(i);
  const std::size_t n = used.size();
  Array<double> H(n * n), values(n), Q(n * n), d(n);
  for (std::size_t i = 0; i < n; ++i) d[i] = std::sqrt(there.scale[used[i]]);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l < n; ++l) H[i * n + l] = there.information[used[i] * P + used[l]] / (d[i] * d[l]);
  spectrum(n, H.data(), values.data(), Q.data());
  NewtonStep step;
  step.delta.reset(P);
  step.uphill.reset(P);
  step.least = values[0];
  for (std::size_t e = 0; e < n; ++e) {
    double t = 0.0;
    for (std::size_t i = 0; i < n; ++i) t += Q[i * n + e] * there.score[used[i]] / d[i];
    const double curvature =
        values[0] > settings.definite ? values[e] : std::max(std::fabs(values[e]), settings.leastcurvature);
    step.decrement += t * t / curvature;
    for (std::size_t i = 0; i < n; ++i) step.delta[used[i]] += Q[i * n + e] / d[i] * (t / curvature);
  }
  double factor = 1.0, longest = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    factor = std::min(factor, there.reach[used[i]] / std::max(std::fabs(step.delta[used[i]]), 1.0e-300));
    step.uphill[used[i]] = Q[i * n] / d[i];
    longest = std::max(longest, std::fabs(step.uphill[used[i]]) / there.turn[used[i]]);
  }
  for (double& value : step.delta) value *= factor;
  for (double& value : step.uphill) value /= longest;
  return step;
}

AscentResult climb(const AscentProblem& problem, const AscentSettings& settings, const Array<double>& start,
                   Approach approach) {
  AscentResult result;
  Climb climb{problem, settings, result};
  Evaluation there = climb.evaluate(start, approach);
  if (!there.usable) {
    result.point = start.copy();
    return result;
  }
  climb.take(start.copy(), std::move(there));
  result.end = climb.run();
  if (result.halted) result.end = AscentEnd::stopped;
  result.exact = climb.refine();
  return result;
}

}  // namespace kdr
