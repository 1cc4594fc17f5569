// The maximum-likelihood engines at the close of the unit-specific phase, each on a copy of the estimates.
#pragma once

#include "estimate/quasi/macrostate.h"
#include "report/passresults.h"

namespace kdr {

// Laplace-6 and then adaptive quadrature, as far as the run asks for them, from the estimates and the random effects in
// `pass`; `before` are the results of the last pass. An engine that succeeds leaves its estimates in `pass` and its
// fixed effects in `state`, reports, marks the report and writes its variance files; one that fails says so.
void maximumlikelihood(Pass& pass, MacroState& state, const PassResults& before);

}  // namespace kdr
