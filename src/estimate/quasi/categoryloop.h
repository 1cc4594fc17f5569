// A multinomial or ordinal fit: the macro loop over stacked working responses. There is no population-average phase.
// The working data are derived in docs/numerics.md, "Quasi-likelihood for categories".
#pragma once

#include "core/failure.h"
#include "estimate/quasi/categories.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Runs the loop of fit.state.analysis. Its observer gets the results of every pass while the pass stands.
[[nodiscard]] Failure fitcategories(const CategoryTable& table, ChainFit& fit);

}  // namespace kdr
