#include "command/asking.h"

#include <cstdio>
#include <cstring>

#include "command/text.h"
#include "core/formatted.h"
#include "driver/questions.h"

namespace kdr {

int askvariable(const char* prompt, int lo, int hi, const Array<Name>& table) {
  return askvariable(prompt, lo, hi, [&](const std::string& name) {
    const auto [index, cut] = findvariable(name, table, hi);
    if (index > 0 && cut)
      std::printf(" %s is taken for %s: names count by their first %d characters.\n", printable(name).c_str(),
                  leftname(table[static_cast<std::size_t>(index)]).c_str(), static_cast<int>(significant));
    return index;
  });
}

char askletter(const std::string& prompt, const char* choices) {
  std::string line;
  for (;;) {
    if (!readanswer(prompt + " ", line, Question::centering)) noproperresponse();
    if (!line.empty() && std::strchr(choices, line[0]) != nullptr) return line[0];
  }
}

}  // namespace kdr
