// What stands before the text of a text file.
#pragma once

#include <string>
#include <string_view>

namespace kdr {

inline constexpr std::string_view bytemark = "\xEF\xBB\xBF";  // of UTF-8

// "two bytes each (UTF-16)" or "four bytes each (UTF-32)", where the characters of a text have so many: told by the
// mark at its start or by the zero bytes of a first letter. Null for other texts.
[[nodiscard]] const char* widecharacters(std::string_view head);
// Takes the mark off the first line of a text file. Stops with code 100 and the file's name where it is UTF-16 or
// UTF-32.
void dropmark(std::string& line, const std::string& path);

}  // namespace kdr
