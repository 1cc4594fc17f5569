// The last words of a run of -fit.
#pragma once

#include "command/formula/fit.h"

namespace kdr {

// Tells the console the fixed effects by the names of the formula, the variances, and the files that were written. Has
// the page made, if one is wanted.
void fitsummary(const PreparedFit& fit);

}  // namespace kdr
