// The heading of the results of a non-linear pass.
#pragma once

#include "core/results.h"

namespace kdr {

// Goes back to the mark of the report and writes the heading of a pass of that kind and macro iteration: of an identity
// pass, with full output only, also the level-1 variance `sigma2`.
void resultsheading(PassKind kind, int macro, double sigma2);

}  // namespace kdr
