// Exploratory analysis: the empirical Bayes residuals regressed on candidate predictors, one at a time.
#pragma once

#include "estimate/linear/pass.h"

namespace kdr {

// True when a LEVEL2: or LEVEL3: line lists candidates.
[[nodiscard]] bool haveexploratory();
// Computes the analysis of both levels from the residuals of the last iteration and writes it to the report. Changes no
// estimate.
void exploratory(Pass& pass);

}  // namespace kdr
