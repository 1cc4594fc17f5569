// The bootstrap of a linear model, from its sums alone: a parametric replicate draws what outcomes would leave in the
// sums, one of cases takes the sums of the level-3 units that it draws. No record is read again.
// Derived in docs/numerics.md, "Bootstrap".
#pragma once

#include "estimate/bootstrap/bootstrap.h"
#include "estimate/linear/marginalvalue.h"
#include "estimate/linear/pass.h"

namespace kdr {

// Of the finished pass of a linear fit with the estimates `est`, by the likelihood that these maximise. Not for design
// weights. What the store lacks is a failure.
[[nodiscard]] Failure bootstraplinear(Pass& pass, const Estimates& est, Criterion criterion,
                                      const BootstrapRequest& request, BootstrapResults& results);

}  // namespace kdr
