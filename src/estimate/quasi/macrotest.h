// The test of whether the estimates have settled from one macro iteration to the next.
#pragma once

#include "estimate/likelihood/parameters.h"

namespace kdr {

// True when no element of gamma, taupi or taubeta has changed by more than `stopmacro` relative to its previous value
// or to its standard error, whichever is larger: an element at 0, where a variance may lie, has no relative change to
// come to rest. `errors` has 0 where there is no standard error. A change below 1e-8 is taken as 1e-8. An element of
// gamma that was 0 before and has no error, and an element of a tau that is 0 now, take no part.
[[nodiscard]] bool macrotest(const Parameters& now, const Parameters& previous, const Parameters& errors,
                             double stopmacro);
[[nodiscard]] bool macrotest(const Parameters& now, const Parameters& previous, double stopmacro);  // without errors

// The largest change of an element that has a standard error, in these.
[[nodiscard]] double largestchange(const Parameters& now, const Parameters& previous, const Parameters& errors);

}  // namespace kdr
