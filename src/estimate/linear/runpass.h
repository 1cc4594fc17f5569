// One pass of the estimation: from the sums of a data pass to estimates and results. Linear runs make one pass,
// non-linear ones a chain of them.
#pragma once

#include <functional>

#include "estimate/linear/iteration.h"
#include "estimate/linear/pass.h"

namespace kdr {

// Phase 1: takes the plan, and makes the design and the arrays of the pass and of run.est.
void beginpass(Pass& pass, const PassPlan& plan);

// Runs a pass whose data pass is done, up to the end of its ordinary stage: least squares, starting values, iterations.
// Prints what stands before the results of the stage, which are handed back; those of a heterogeneous stage before it
// are printed. `state` is carried from pass to pass: the failures of accelerated steps count for the whole run. Without
// an iteration the results have no likelihood and nothing else. An identity pass holds sigma^2 at impliedvariance(),
// which is asked once the least squares stand. Raises the failures of its phases.
[[nodiscard]] PassResults runpass(Pass& pass, IterationState& state,
                                  const std::function<double()>& impliedvariance = {});

}  // namespace kdr
