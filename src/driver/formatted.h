// Text by a printf format.
#pragma once

#include <string>

namespace kdr {

// At most 511 characters of it.
[[nodiscard]] std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kdr
