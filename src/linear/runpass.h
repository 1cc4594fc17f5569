// One pass of the estimation: from the level-2 units of a source to estimates and results. Linear runs make one pass,
// non-linear ones a chain of them.
#pragma once

#include <functional>

#include "linear/iteration.h"
#include "linear/pass.h"
#include "linear/unitsource.h"

namespace kdr {

// What a pass needs besides its plan.
struct PassInput {
  UnitSource next;          // delivers the units
  bool withid = false;      // a later reader of the store needs the identifiers
  bool withlevel2 = false;  // and the level-2 rows
  // Of an identity pass: what sigma^2 is held at, asked for once all units have been delivered.
  std::function<double()> impliedvariance;
};

// Phase 1: takes the plan, and makes the design and the arrays of the pass and of run.est.
void beginpass(Pass& pass, const PassPlan& plan);

// Runs a pass that has begun, up to the end of its ordinary stage: data pass, least squares, starting values,
// iterations. Prints what stands before the results of the stage, which are handed back; those of a heterogeneous stage
// before it are printed. `state` is carried from pass to pass: the failures of accelerated steps count for the whole
// run. Without an iteration the results have no likelihood and nothing else. Raises the failures of its phases.
[[nodiscard]] PassResults runpass(Pass& pass, const PassInput& input, IterationState& state);

}  // namespace kdr
