// The report of a latent variable regression.
#pragma once

#include "multirun/latentregression.h"
#include "multirun/pooling.h"
#include "report/passresults.h"

namespace kdr {

// The regression that run.out.lvrroles asks for, of the results of a pass or of the averages of a series: computes it
// and writes it to the report. Nothing when run.out.lvr is not set. Failure 3.
void latentvariableregression(const PassResults& results);
void latentvariableregression(const Pooled& averages);

// The model as the regression sees it. The roles stay those of `run`.
[[nodiscard]] LatentModel latentmodel();

// Writes a regression of the run's coefficients.
void latentreport(const LatentRegression& regression);

}  // namespace kdr
