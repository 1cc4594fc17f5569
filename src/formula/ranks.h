// Numbers as places among those that occur.
#pragma once

#include <vector>

namespace kdr {

struct Ranks {
  std::vector<double> values;  // those that occur, the smallest first; 0 for -0
  std::vector<int> codes;      // [record]: place in `values`, -1 where the value is missing
};
[[nodiscard]] Ranks ranksof(const std::vector<double>& numbers);

}  // namespace kdr
