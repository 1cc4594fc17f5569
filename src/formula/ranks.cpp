#include "formula/ranks.h"

#include <algorithm>
#include <numeric>

#include "core/constants.h"
#include "kernel/places.h"
#include "kernel/sizes.h"

namespace kdr {

// Only values that differ are sorted: those of IDs and of factors are few beside the records.
Ranks ranksof(const std::vector<double>& numbers) {
  Ranks ranks;
  ranks.codes.reserve(numbers.size());
  Places known;
  std::vector<double> values;  // in the order in which they appear
  double before = missingcode;
  int code = -1;
  for (const double value : numbers) {
    if (value != before) {
      before = value;
      code = value == missingcode ? -1 : static_cast<int>(known.of(keyof(value)));
      if (known.size() > values.size()) values.push_back(value + 0.0);
    }
    ranks.codes.push_back(code);
  }
  std::vector<int> order(values.size()), rank(values.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int a, int b) { return values[at(a)] < values[at(b)]; });
  for (const int place : order) {
    rank[at(place)] = static_cast<int>(ranks.values.size());
    ranks.values.push_back(values[at(place)]);
  }
  for (int& of : ranks.codes)
    if (of >= 0) of = rank[at(of)];
  return ranks;
}

}  // namespace kdr
