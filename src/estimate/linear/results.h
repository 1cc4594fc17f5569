// What a finished stage hands back.
#pragma once

#include "estimate/linear/iterationstate.h"
#include "estimate/linear/pass.h"

namespace kdr {

// Standard errors, reliabilities: what hangs on an iteration. Of use with DEBUG: between iterations too.
[[nodiscard]] PassResults iterationresults(Pass& pass, IterationState& state);
// All results of the stage that has just ended.
[[nodiscard]] PassResults stageresults(Pass& pass, IterationState& state);

}  // namespace kdr
