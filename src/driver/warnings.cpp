#include "driver/warnings.h"

#include <algorithm>
#include <cstdio>

#include "core/formatted.h"
#include "driver/runrecord.h"

namespace kdr {

bool keepwarning(const std::string& words, bool ofcommands) {
  const auto same = [&](const RunWarning& w) { return w.ofcommands == ofcommands && w.words == words; };
  if (std::ranges::any_of(run.warnings, same)) return false;
  run.warnings.push_back({words, ofcommands});
  return true;
}

void warn(const std::string& words) {
  if (keepwarning(words, false)) std::printf("%s\n", printable(words).c_str());
}

}  // namespace kdr
