// The covariance of the fixed effects of a run with design weights.
#pragma once

#include "estimate/linear/pass.h"

namespace kdr {

// The covariance (ngamma squared) from the final estimates: the sandwich of the weighted generalised cross-product
// round the variance of the weighted score under the model. Derived in docs/numerics.md, "What stands on the last
// estimates".
[[nodiscard]] Array<double> weightedcovariance(Pass& pass);

}  // namespace kdr
