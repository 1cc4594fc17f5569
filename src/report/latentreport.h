// The report of a latent variable regression.
#pragma once

#include "series/latentregression.h"

namespace kdr {

// Writes a regression of the run's coefficients.
void latentreport(const LatentRegression& regression);

}  // namespace kdr
