// When the macro iterations go on and when they end: for the outcomes with one working response, and for categories.
#pragma once

#include "core/results.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Counts a macro iteration.
void beginmacro(MacroState& state);

// How the unit-specific phase goes on behind a pass: its end, because the estimates have settled (not tested after the
// first pass), the user stopped, or the allowance has run out; then numitcontinue tells, or the observer is asked.
// Counts the allowance down when the phase goes on.
[[nodiscard]] MacroEnd macroend(MacroState& state, const PassResults& results, bool first);

}  // namespace kdr
