// Whether what an estimation hands out is the end that was asked for. Console, report, results document and library all
// go by what is said here.
#pragma once

#include <string>

#include "core/results.h"
#include "estimate/likelihood/engines.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// The iterations of a pass ended before their own rule. Of passes of quasi-likelihood the event behind them tells; a
// population average needs no iteration of its own while sigma^2 is held.
[[nodiscard]] bool endedearly(const PassResults& results);

// The macro iterations have no maximum: stopped, cut off, lost, separated, or without results. Not while they go on.
[[nodiscard]] bool endedearly(const MacroEvent& event);
// How the phase of their last pass ended, which that pass alone does not tell.
[[nodiscard]] Ending endingof(MacroEnd end, Ending ofpass);

// Estimates that an engine warns of, though its iterations converged: points that fail their check, terms of the sixth
// order that are not small. `fixednodes`: AGQNODES:FIXED, whose engines make no such check.
[[nodiscard]] bool doubtful(const EngineStage& stage, bool fixednodes);
// The fit goes on without the engine, or with estimates that are no maximum or are doubtful.
[[nodiscard]] bool endedearly(const EngineStage& stage, bool fixednodes);

// What a scoring step moves at the least, in standard errors, while variance components have not settled.
inline constexpr double settled = 0.1;
// A warning of two lines when the iterations of a linear pass met their rule, or those of quasi-likelihood ended, and a
// scoring step from the estimates would still move a variance component by a tenth of its standard error or more; else
// empty.
[[nodiscard]] std::string unsettledwords(const PassResults& results);
// The same of a population average whose passes met their limit.
[[nodiscard]] std::string unsettledaverage(const PassResults& results);

}  // namespace kdr
