// The maximum-likelihood engines at the end of the macro iterations, for all outcomes that have macro iterations.
#pragma once

#include "core/failure.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// The end of the unit-specific phase: its observer, and the engines that the analysis asks for.
[[nodiscard]] Failure closephase(Pass& pass, MacroState& state, const PassResults& results);

// Whether a pass has no results for the numbers' sake. Failures of files and of memory are other rows, or tell the
// console alone; who forbids the repair of a starting tau wants no other start either.
[[nodiscard]] bool ofnumbers(const Failure& failure, const Control& control);

// What quasi-likelihood could not reach need not hinder maximum likelihood: the engines begin without its estimates.
// There is no population average, as its working data would be made by what has failed. When they have no results
// either, the failure stands.
[[nodiscard]] Failure enginesalone(ChainFit& fit, Failure failure);

}  // namespace kdr
