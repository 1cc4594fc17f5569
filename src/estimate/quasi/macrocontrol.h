// When the macro iterations go on and when they end: for the outcomes with one working response, and for categories.
#pragma once

#include "core/results.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Counts a macro iteration and says so on the console.
void beginmacro(MacroState& state);

// The end of a pass of the unit-specific phase: whether the phase closes with it, because the estimates have settled
// (not tested after the first pass), the user stopped, or the allowance has run out; then the user may be asked, as
// numitcontinue tells, or the report gets a warning. Counts the allowance down when the phase goes on.
[[nodiscard]] bool phasecloses(MacroState& state, const PassResults& results, bool first);

// The end of the population-average pass: words for one that was stopped before it had converged. While sigma^2 is
// held, its first iteration gives the fixed effects, and the limit cuts off nothing.
void averagecloses(const PassResults& results);

// The fixed effects of the phases for the graph data file, ngamma each, one behind the other.
[[nodiscard]] Array<double> graphgammas(const MacroState& state);

}  // namespace kdr
