// The report of a latent variable regression.
#pragma once

#include <string>

#include "series/latentregression.h"

namespace kdr {

// Writes a regression of the run's coefficients. `whose`: the method that the estimates are of, where there are several
// in the run; may be empty.
void latentreport(const LatentRegression& regression, const std::string& whose = {});

}  // namespace kdr
