// Whether the variance components stand still where the iterations ended.
#pragma once

#include <string>

#include "core/results.h"

namespace kdr {

// What a scoring step moves at the least, in standard errors, while variance components have not settled.
inline constexpr double settled = 0.1;
// A warning of two lines when a scoring step from the estimates would still move a variance component by a tenth of its
// standard error or more; else empty.
[[nodiscard]] std::string unsettledwords(const PassResults& results);

// The same of a population average whose passes met their limit.
[[nodiscard]] std::string unsettledaverage(const PassResults& results);

}  // namespace kdr
