// Numbers in files that programs read again.
#pragma once

#include <string>

namespace kdr {

// A value in `width` columns (12 or more): by "%<width>.<decimals>f" where that keeps it to 1e-7 of itself, else in
// exponent form with eight significant digits. Where these don't fit, the sign and the zeros of the exponent go, and
// then the point: "1.2345678E-09", "1.2345678E-9", "12345678E-17".
[[nodiscard]] std::string filecell(double value, int width, int decimals);

}  // namespace kdr
