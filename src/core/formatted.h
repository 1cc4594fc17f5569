// Text by a printf format.
#pragma once

#include <string>
#include <string_view>

namespace kdr {

// At most 511 characters of it.
[[nodiscard]] std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A text from a file for the console: a question mark in place of each byte of a control character, a blank for a tab.
[[nodiscard]] std::string printable(std::string_view text);

}  // namespace kdr
