// When the macro iterations go on and when they end: for the outcomes with one working response, and for categories.
#pragma once

#include <string>

#include "core/failure.h"
#include "core/results.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// The plan of pass `macro`: from the second on it starts from the estimates of the one before.
[[nodiscard]] PassPlan planof(const MacroState& state, PassKind kind, int macro);

// Counts a macro iteration.
void beginmacro(MacroState& state);

// How the unit-specific phase goes on behind a pass, whose observer is told: its end, because effects run away by a
// known separation, because the estimates have settled (not tested after the first pass), the user stopped, or the
// allowance has run out; then numitcontinue tells, or the observer is asked. Counts the allowance down when the phase
// goes on.
[[nodiscard]] MacroEnd macroend(MacroState& state, const PassResults& results, bool first);

// The sentences of MacroEnd::failed and noaverage.
[[nodiscard]] std::string failedwords(const MacroEvent& event);

// Looks for separation (separation.h) behind a pass whose working data have records without a say, or that is the last.
[[nodiscard]] Failure lookforseparation(MacroState& state);
// Whether separation is why there are no working data behind a pass: the phase ends then, and `failure` is settled.
[[nodiscard]] bool endseparated(MacroState& state, const PassResults& results, Failure& failure);

}  // namespace kdr
