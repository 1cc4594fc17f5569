// What stands before the text of a text file.
#pragma once

#include <string>
#include <string_view>

namespace kdr {

inline constexpr std::string_view bytemark = "\xEF\xBB\xBF";  // of UTF-8

// Whether a text has two bytes for each character: told by the mark at its start or by the zero byte of a first letter.
[[nodiscard]] bool isutf16(std::string_view head);
// Takes the mark off the first line of a text file. Stops with code 100 and the file's name where it is UTF-16.
void dropmark(std::string& line, const std::string& path);

}  // namespace kdr
