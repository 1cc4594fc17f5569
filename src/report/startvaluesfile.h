// The starting-value file of STARTVALS:. Text, in this order, each block behind its marker line: #SIGMA2 and one value,
// #TAUPI and the lower triangle of taupi by rows, #TAUBETA likewise, #GAMMA and one value a line.
#pragma once

#include "core/estimates.h"

namespace kdr {

// True when a file is named and exists.
[[nodiscard]] bool havestartvalues();
// sigma2, taupi, taubeta and gammahat from the file. Markers are compared by their letters, without
// regard to case. What is not a number counts as 0.0, and so does what a row lacks. A missing marker or too few lines
// behind #GAMMA stop the run with code 100.
[[nodiscard]] Estimates readstartvalues();
// Overwrites the file with the estimates.
void writestartvalues(const Estimates& est);

}  // namespace kdr
