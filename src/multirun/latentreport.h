// The report of a latent variable regression.
#pragma once

#include "multirun/latentregression.h"

namespace kdr {

// The regression that run.out.lvrroles asks for, from the model at hand: computes it and writes it to the report.
// Failure 3.
void latentvariableregression(const LatentEstimates& estimates);

// The model as the regression sees it. The roles stay those of `run`.
[[nodiscard]] LatentModel latentmodel();

// Writes a regression of the run's coefficients.
void latentreport(const LatentRegression& regression);

}  // namespace kdr
