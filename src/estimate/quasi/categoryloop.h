// A multinomial or ordinal fit: the macro loop over stacked working responses. There is no population-average phase.
// Source: Hedeker and Gibbons (1994), Biometrics 50, 933-944, for the ordinal model; Goldstein (1991), Biometrika 78,
// 45-51, for the working data.
#pragma once

#include "core/failure.h"
#include "estimate/quasi/categories.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Runs the loop of fit.state.analysis. Its observer gets the results of every pass while the pass stands.
[[nodiscard]] Failure fitcategories(const CategoryTable& table, ChainFit& fit);

}  // namespace kdr
