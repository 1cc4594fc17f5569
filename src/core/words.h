// Words without regard to the case of ASCII letters.
#pragma once

#include <string>
#include <string_view>

namespace kdr {

[[nodiscard]] constexpr char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
// ASCII letters in upper case, everything else as it is.
[[nodiscard]] std::string uppercase(std::string_view text);
// Without regard to case.
[[nodiscard]] bool sameword(std::string_view a, std::string_view b);
[[nodiscard]] bool beginswith(std::string_view text, std::string_view head);

}  // namespace kdr
