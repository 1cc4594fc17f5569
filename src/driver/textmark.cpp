#include "driver/textmark.h"

#include "core/formatted.h"
#include "driver/failures.h"

namespace kdr {

const char* widecharacters(std::string_view head) {
  using namespace std::string_view_literals;
  const bool first = head.starts_with("\0\0"sv), last = head.size() > 3 && head.substr(1, 3) == "\0\0\0"sv;
  if (first || last || head.starts_with("\xFF\xFE\0\0"sv)) return "four bytes each (UTF-32)";
  const std::string_view two = head.substr(0, 2);
  const bool wide = two == "\xFF\xFE" || two == "\xFE\xFF" || two.find('\0') != two.npos;
  return wide ? "two bytes each (UTF-16)" : nullptr;
}

void dropmark(std::string& line, const std::string& path) {
  if (const char* wide = widecharacters(line))
    stopwith("The characters of %s have %s. Save it as UTF-8.\n", printable(path).c_str(), wide);
  if (line.starts_with(bytemark)) line.erase(0, bytemark.size());
}

}  // namespace kdr
