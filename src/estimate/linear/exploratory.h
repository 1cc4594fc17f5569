// Exploratory analysis: the empirical Bayes residuals regressed on candidate predictors, one at a time.
#pragma once

#include "core/results.h"
#include "estimate/linear/pass.h"

namespace kdr {

// The largest number of candidates that a line of the command file lists; 0: the level has no analysis.
[[nodiscard]] int mostcandidates(const IntTable& counts);
// True when a LEVEL2: or LEVEL3: line lists candidates.
[[nodiscard]] bool haveexploratory(const Model& model);
// The analysis of both levels from the residuals of the last iteration. Changes no estimate.
[[nodiscard]] ExploratoryAnalysis exploratory(Pass& pass);

}  // namespace kdr
