// A Bernoulli, binomial or Poisson fit: penalised quasi-likelihood as a chain of passes of the linear engine.
//
//   1  identity pass        a linear model of the raw outcome, or rate, over the blocks of the MDM file
//   2  unit-specific phase  working data from the estimates, a pass over them, and again, until the estimates stand
//                           still
//   3  its close            the maximum-likelihood engines
//   4  population average   one pass over working data without random effects, the taus held
//
// Derived in docs/numerics.md, "Quasi-likelihood, one working response" and "The population average".
#pragma once

#include "core/failure.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Runs the chain of fit.state.analysis. Its observer gets the results of every pass while the pass stands.
[[nodiscard]] Failure fitnonlinear(ChainFit& fit);

}  // namespace kdr
