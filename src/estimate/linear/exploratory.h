// Exploratory analysis: the empirical Bayes residuals regressed on candidate predictors, one at a time.
#pragma once

#include "estimate/linear/pass.h"
#include "report/exploratorytables.h"

namespace kdr {

// True when a LEVEL2: or LEVEL3: line lists candidates.
[[nodiscard]] bool haveexploratory(const Model& model);
// The analysis of both levels from the residuals of the last iteration. Changes no estimate.
[[nodiscard]] ExploratoryAnalysis exploratory(Pass& pass);

}  // namespace kdr
