// The covariance of the fixed effects of a run with design weights.
#pragma once

#include "linear/pass.h"

namespace kdr {

// Fills run.est.vgammaweighted, a true covariance, from the final estimates: the sandwich of the weighted generalised
// cross-product round the variance of the weighted score under the model.
void weightedcovariance(Pass& pass);

}  // namespace kdr
