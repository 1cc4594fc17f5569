#include "driver/oddities.h"

#include <algorithm>
#include <cstdio>

#include "driver/failures.h"
#include "driver/runrecord.h"
#include "driver/warnings.h"

namespace kdr {

void oddcommand(const std::string& words, int strictcode) {
  std::printf("%s", words.c_str());
  if (run.id.strict) stoprun(strictcode);
  const std::size_t first = words.find_first_not_of(" \n"), last = words.find_last_not_of(" \n");
  std::string kept = words.substr(first, last - first + 1);
  std::replace(kept.begin(), kept.end(), '\n', ' ');
  keepwarning(kept, true);
}

}  // namespace kdr
