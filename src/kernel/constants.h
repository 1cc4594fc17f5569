// The two doubles that mark a missing value and start running minima.
#pragma once

namespace kdr {

// The code of a missing value in memory and in the MDM file, compared by exact equality. Also the mark of a
// free element of esttau2 and esttau3, of a unit without residuals, and of a result that there is none of.
inline constexpr double missingcode = -1.0e36;
// Start value of running minima.
inline constexpr double bigvalue = 1.0e36;

}  // namespace kdr
