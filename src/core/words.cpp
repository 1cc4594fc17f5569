#include "core/words.h"

#include <algorithm>

namespace kdr {

std::string uppercase(std::string_view text) {
  std::string raised(text);
  std::transform(raised.begin(), raised.end(), raised.begin(), upper);
  return raised;
}

bool sameword(std::string_view a, std::string_view b) { return a.size() == b.size() && beginswith(a, b); }

bool beginswith(std::string_view text, std::string_view head) {
  return text.size() >= head.size() &&
         std::equal(head.begin(), head.end(), text.begin(), [](char a, char b) { return upper(a) == upper(b); });
}

}  // namespace kdr
