// The bootstrap of a run: asked for by -bootstrap, told on the console, in the report and in the results document.
#pragma once

#include "estimate/linear/linearrun.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Refuses what has no bootstrap, once the model stands.
void checkbootstrap();
// Of a finished fit, if one is asked for.
void bootstrapjob(LinearFit& fit, const PassResults& results);
void bootstrapjob(const ChainFit& fit);

}  // namespace kdr
