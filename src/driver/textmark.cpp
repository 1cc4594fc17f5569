#include "driver/textmark.h"

#include "core/formatted.h"
#include "driver/failures.h"

namespace kdr {

bool isutf16(std::string_view head) {
  head = head.substr(0, 2);
  return head == "\xFF\xFE" || head == "\xFE\xFF" || head.find('\0') != head.npos;
}

void dropmark(std::string& line, const std::string& path) {
  if (isutf16(line))
    stopwith("The characters of %s have two bytes each (UTF-16). Save it as UTF-8.\n", printable(path).c_str());
  if (line.starts_with(bytemark)) line.erase(0, bytemark.size());
}

}  // namespace kdr
