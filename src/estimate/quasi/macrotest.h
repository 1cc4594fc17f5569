// The test of whether the estimates have settled from one macro iteration to the next.
#pragma once

#include "estimate/likelihood/parameters.h"

namespace kdr {

// True when no element of gamma, taupi or taubeta has changed by more than `stopmacro` relative to its previous value.
// A change below 1e-8 is taken as 1e-8. An element of gamma that was 0 before and an element of a tau that is 0 now
// take no part; a tau element that left 0 counts as changed.
[[nodiscard]] bool macrotest(const Parameters& now, const Parameters& previous, double stopmacro);

}  // namespace kdr
