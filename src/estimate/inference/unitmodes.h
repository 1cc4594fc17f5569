// The random effects of one level-3 unit at given estimates: modes of their density given the data, the covariance that
// the curvature there makes, and how the modes go with the fixed effects. For any outcome; exact for normal ones.
// Derived in docs/numerics.md, "Predictions".
#pragma once

#include <vector>

#include "estimate/inference/predictions.h"

namespace kdr {

struct Posteriors;

// The records of a level-3 unit.
struct UnitOutcomes {
  std::vector<PredictorRows> rows;
  std::vector<int> unit;        // [record] its level-2 unit, from 0
  std::vector<double> outcome;  // a value; a number of successes, with trials in rows.count; the place of a category
  int units = 0;
  // Design weights, empty without: a record's log-density counts so often, a level-2 unit in what is known of v.
  std::vector<double> weight1, weight2;
  // What the covariances of u_j given v, and of v, are divided by: those of a density that counts so often. Empty: 1.
  std::vector<double> divisor2;
  double divisor3 = 1.0;
};

struct UnitModes {
  bool settled = false;              // the rest is of no use otherwise
  std::vector<KnownEffects> ofunit;  // [level-2 unit] (u_j, v)
  KnownEffects fresh;                // of a level-2 unit that is not in the data
};
[[nodiscard]] UnitModes unitmodes(const FittedModel& fitted, const UnitOutcomes& outcomes);

// Puts means and covariances of (u, v) that are known otherwise in the place of the modes, for level-3 unit k and its
// level-2 unit `unit`, of all units; below 0: one that is not in the data, of which the model tells. Where covariances
// of u and v are not known, those at the modes stay.
void takeposteriors(const FittedModel& fitted, const Posteriors& random, long long unit, std::size_t k,
                    KnownEffects& effects);

}  // namespace kdr
