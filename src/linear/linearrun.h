// A linear run, from the MDM file to the last result file.
#pragma once

namespace kdr {

// Estimates the linear model of the run record: one pass over the MDM file, then the statistics of the model, the
// exploratory analysis, and the residual, graph and variance files that the run asks for.
void estimatelinear();

}  // namespace kdr
