// A linear run, from the MDM file to the last result file.
#pragma once

#include "core/results.h"
#include "estimate/analysis.h"

namespace kdr {

// Fits the linear model of the run record, and writes what the run asks for: the tables of the pass, the statistics of
// the model, the exploratory analysis, the residual, graph and variance files. Hands back the pass's results.
[[nodiscard]] PassResults linearjob(const Analysis& analysis);

// The last lines of the report: the variance files that were made.
void listlinearfiles(const PassResults& results);

}  // namespace kdr
