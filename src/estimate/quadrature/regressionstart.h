// Where maximum likelihood begins when there are no estimates to begin from, or those lead nowhere.
#pragma once

#include "estimate/quadrature/spherical.h"

namespace kdr {

// A point whose gamma~ is that of a regression without random effects, by Newton steps, and whose effects have standard
// deviations as large as a unit's own error, but of no more than 1. False where the records don't tell the fixed
// effects apart, or have no finite likelihood.
[[nodiscard]] bool regressionstart(SphericalLikelihood& likelihood, Array<double>& point);

}  // namespace kdr
