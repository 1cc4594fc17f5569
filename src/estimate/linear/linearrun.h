// A linear run, from the MDM file to the last result file.
#pragma once

#include "core/results.h"

namespace kdr {

// Estimates the linear model of the run record: one pass over the MDM file, then the statistics of the model, the
// exploratory analysis, and the residual, graph and variance files that the run asks for. Hands back the pass's
// results.
[[nodiscard]] PassResults estimatelinear();

// The last lines of the report: the variance files that were made.
void listlinearfiles(const PassResults& results);

}  // namespace kdr
