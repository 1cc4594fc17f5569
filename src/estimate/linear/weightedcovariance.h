// The covariance of the fixed effects of a run with design weights.
#pragma once

#include "estimate/linear/pass.h"

namespace kdr {

// The covariance (ngamma squared) from the final estimates: the sandwich of the weighted generalised cross-product
// round the variance of the weighted score under the model. Source: Skinner (1989), in Analysis of Complex Surveys,
// 59-87; Pfeffermann et al. (1998), JRSS B 60, 23-40.
[[nodiscard]] Array<double> weightedcovariance(Pass& pass);

}  // namespace kdr
