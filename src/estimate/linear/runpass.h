// One pass of the estimation: from the sums of a data pass to estimates and results. Linear runs make one pass,
// non-linear ones a chain of them.
#pragma once

#include <functional>

#include "estimate/linear/iteration.h"
#include "estimate/linear/pass.h"

namespace kdr {

// Phase 1: takes the plan, and makes the design and the arrays of the pass and of its estimates.
[[nodiscard]] Failure beginpass(Pass& pass, const Analysis& analysis, const PassPlan& plan);

// The variance of the outcome that its type implies, for an identity pass.
using ImpliedVariance = std::function<Failure(double& sigma2)>;

// Runs a pass whose data pass is done, up to the end of its ordinary stage: least squares, starting values, iterations.
// The observer hears of all of these and gets the results of a heterogeneous stage; those of the ordinary one go to
// `results`. Without an iteration of the ordinary stage the results have the
// likelihood of the heterogeneous one, if there was any, and nothing else. An identity pass holds sigma^2 at
// `impliedvariance`, which is asked once the least squares stand.
[[nodiscard]] Failure runpass(Pass& pass, IterationState& state, PassResults& results,
                              const ImpliedVariance& impliedvariance = {});

}  // namespace kdr
