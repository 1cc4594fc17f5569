#include "estimate/ascent/ridgedascent.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "kernel/decompositions.h"
#include "kernel/products.h"

namespace kdr {

namespace {

bool abandoned(const RidgedAscent& ascent) { return ascent.problem.abandoned && ascent.problem.abandoned(); }

void tell(const RidgedAscent& ascent, AscentEvent event) {
  if (ascent.problem.tell) ascent.problem.tell(event, ascent);
}

void raise(RidgedAscent& ascent) {
  tell(ascent, AscentEvent::ridgeraised);
  ascent.ridge.raise(ascent.policy);
  ascent.raised = true;
}

void lower(RidgedAscent& ascent) {
  tell(ascent, AscentEvent::ridgelowered);
  ascent.ridge.value /= ascent.policy.growth;
}

// A point along the step, and what is known of it.
struct Trial {
  Array<double> point;
  Evaluation at;
};

// The step, halved until it leads inside. False when it doesn't, or not before the last trial.
bool trystep(RidgedAscent& ascent, Trial& trial) {
  const bool halves = ascent.policy.undefined == Undefined::halve;
  for (int number = 1; number <= ascent.policy.trials; ++number) {
    trial.point = ascent.now.copy();
    for (std::size_t i = 0; i < trial.point.size(); ++i) trial.point[i] += ascent.step[i];
    if (ascent.problem.inside(trial.point)) {
      if (halves) trial.at = ascent.problem.test(trial.point);
      if (!halves || trial.at.usable) {
        if (number < ascent.policy.trials) return true;
        ascent.now = std::move(trial.point);
        return false;
      }
    }
    for (double& d : ascent.step) d *= 0.5;
    tell(ascent, AscentEvent::stephalved);
  }
  return false;
}

void makestep(RidgedAscent& ascent) {
  const RidgedPolicy& policy = ascent.policy;
  const int P = static_cast<int>(ascent.now.size());
  ascent.step.reset(ascent.now.size());
  mulAB(ascent.step.data(), ascent.inverse.data(), ascent.at.score.data(), P, 1, P);
  if (policy.halvefirst && (ascent.iterations == 0 || ascent.halvenext))
    for (double& d : ascent.step) d *= 0.5;
  if (ascent.halvenext) tell(ascent, AscentEvent::fallen);
  ascent.halvenext = false;
}

void take(RidgedAscent& ascent, Trial& trial) {
  const RidgedPolicy& policy = ascent.policy;
  if (policy.lowering == Lowering::behindstep && !ascent.raised && ascent.ridge.value > policy.leastridge)
    lower(ascent);
  ascent.halvenext = policy.halvefirst && ascent.iterations > 0 && trial.at.value < ascent.value - policy.fall;
  ascent.now = std::move(trial.point);
  ascent.value = trial.at.value;
  if (ascent.problem.accepted) ascent.problem.accepted();
  ++ascent.iterations;
  tell(ascent, AscentEvent::stepped);
}

// The end of the ascent by an iteration that fails; nothing behind a step.
std::optional<AscentEnd> iterate(RidgedAscent& ascent) {
  const RidgedPolicy& policy = ascent.policy;
  ascent.before = ascent.now.copy();
  ascent.raised = false;
  ascent.at = ascent.problem.evaluate(ascent.now);
  if (!ascent.at.usable) return AscentEnd::unusable;
  ascent.H = ascent.at.information.copy();
  for (;;) {
    if (!ascent.ridge.addto(ascent.H.data(), ascent.now.size(), policy)) return AscentEnd::notdefinite;
    if (!invertinformation(ascent.H, policy.inverse, ascent.inverse)) {
      raise(ascent);
      continue;
    }
    if (policy.lowering == Lowering::beforestep && ascent.ridge.value > policy.leastridge) lower(ascent);
    makestep(ascent);
    Trial trial;
    if (!trystep(ascent, trial)) return abandoned(ascent) ? AscentEnd::unusable : AscentEnd::nostep;
    if (policy.undefined == Undefined::ridge) trial.at = ascent.problem.test(trial.point);
    if (trial.at.usable && (ascent.iterations < policy.freesteps || trial.at.value >= ascent.value)) {
      take(ascent, trial);
      return std::nullopt;
    }
    if (!trial.at.usable && abandoned(ascent)) return AscentEnd::unusable;
    raise(ascent);
  }
}

}  // namespace

bool Ridge::addto(double* H, std::size_t P, const RidgedPolicy& policy) const {
  if (value == 0.0) return true;
  double m = H[0];
  for (std::size_t i = 1; i < P; ++i) m = std::max(m, H[i * P + i]);
  if (value > policy.largestridge || value / m > policy.largestratio) return false;
  for (std::size_t i = 0; i < P; ++i) H[i * P + i] += value;
  return true;
}

void Ridge::raise(const RidgedPolicy& policy) {
  if (value == 0.0) value = policy.firstridge;
  value *= policy.growth;
}

// An information that is singular to working accuracy, as with fewer units than parameters, has no inverse, though
// rounding may leave it a determinant other than 0.
bool invertinformation(const Array<double>& H, UsableInverse kind, Array<double>& inverse) {
  int order = 0;
  while (static_cast<std::size_t>(order) * static_cast<std::size_t>(order) < H.size()) ++order;
  const auto P = static_cast<std::size_t>(order);
  inverse.reset(P * P);
  if (kind == UsableInverse::definite) {
    Array<double> scaled(P * P);
    const auto deviation = [&](std::size_t i) { return std::sqrt(H[i * P + i]); };
    for (std::size_t i = 0; i < P; ++i)
      for (std::size_t l = 0; l < P; ++l) scaled[i * P + l] = H[i * P + l] / (deviation(i) * deviation(l));
    if (!ispositivedefinite(order, scaled.data(), order, nullptr)) return false;
  }
  const Inversion inversion = invertsymmetric(order, H.data(), inverse.data());
  return inversion.result == 0 && !(kind == UsableInverse::pivots && inversion.negative);
}

AscentEnd climb(RidgedAscent& ascent, int iterations) {
  while (ascent.iterations < iterations) {
    if (const std::optional<AscentEnd> failed = iterate(ascent)) return *failed;
    const bool settled = ascent.problem.settled && ascent.problem.settled(ascent);
    if (ascent.problem.stop && ascent.problem.stop()) ascent.stopped = true;
    if (settled) return AscentEnd::converged;
    if (ascent.stopped) return AscentEnd::stopped;
  }
  return AscentEnd::limit;
}

}  // namespace kdr
