// Doubles with a meaning.
#pragma once

#include <cmath>
#include <limits>

namespace kdr {

// The code of a missing value in memory and in the files, compared by exact equality.
inline constexpr double missingcode = -1.0e36;
// What there is none of among numbers that there are: a free element among held ones, an error that cannot be computed.
inline constexpr double absent = std::numeric_limits<double>::quiet_NaN();
[[nodiscard]] inline bool isabsent(double value) { return std::isnan(value); }
// Start value of running minima.
inline constexpr double bigvalue = 1.0e36;

}  // namespace kdr
