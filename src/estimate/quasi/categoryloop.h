// A multinomial or ordinal run: the macro loop over stacked working responses. There is no population-average phase.
// Source: Hedeker and Gibbons (1994), Biometrics 50, 933-944, for the ordinal model; Goldstein (1991), Biometrika 78,
// 45-51, for the working data.
#pragma once

#include "estimate/quasi/categories.h"
#include "report/passresults.h"

namespace kdr {

// Runs the loop for the model of the run record. `store` gets the results of every pass, for a series of runs. Returns
// those of the last pass.
[[nodiscard]] PassResults estimatecategories(const Analysis& analysis, const CategoryTable& table,
                                             void (*store)(const PassResults&));

}  // namespace kdr
