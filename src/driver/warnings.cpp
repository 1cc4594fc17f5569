#include "driver/warnings.h"

#include <algorithm>
#include <cstdio>

#include "core/formatted.h"
#include "driver/runrecord.h"

namespace kdr {

void warn(const std::string& words) {
  if (std::find(run.warnings.begin(), run.warnings.end(), words) != run.warnings.end()) return;
  std::printf("%s\n", printable(words).c_str());
  run.warnings.push_back(words);
}

}  // namespace kdr
