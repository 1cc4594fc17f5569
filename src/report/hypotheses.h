// The tables of the tests of contrasts among the fixed effects.
#pragma once

#include "core/results.h"

namespace kdr {

// Writes one test for each hypothesis: its contrasts, their estimates and standard errors, and the chi-square
// statistic, or the words that it cannot be computed.
void hypothesistests(const EffectTable& effects);

}  // namespace kdr
