#include "formula/ranks.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "core/constants.h"
#include "kernel/places.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Whole numbers that lie close together, as most IDs do: a table of all between the least and the largest has them in
// their order. False where the numbers are others.
bool rankclose(const std::vector<double>& numbers, Ranks& ranks) {
  constexpr double largest = 1.0e9;
  double least = largest, most = -largest;
  for (const double value : numbers) {
    if (value == missingcode) continue;
    if (!(std::fabs(value) < largest) || value != static_cast<double>(static_cast<int>(value))) return false;
    least = std::min(least, value);
    most = std::max(most, value);
  }
  if (most - least > 2.0 * static_cast<double>(numbers.size())) return false;
  const int first = static_cast<int>(least);
  std::vector<int> rank(least > most ? 0 : static_cast<std::size_t>(most - least) + 1, -1);
  const auto placeof = [first](double value) { return at(static_cast<int>(value) - first); };
  for (const double value : numbers)
    if (value != missingcode) rank[placeof(value)] = 0;
  for (std::size_t place = 0; place < rank.size(); ++place)
    if (rank[place] == 0) {
      rank[place] = static_cast<int>(ranks.values.size());
      ranks.values.push_back(least + static_cast<double>(place) + 0.0);
    }
  for (const double value : numbers) ranks.codes.push_back(value == missingcode ? -1 : rank[placeof(value)]);
  return true;
}

// Only values that differ are sorted.
void rankany(const std::vector<double>& numbers, Ranks& ranks) {
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
}

}  // namespace

Ranks ranksof(const std::vector<double>& numbers) {
  Ranks ranks;
  ranks.codes.reserve(numbers.size());
  if (!rankclose(numbers, ranks)) rankany(numbers, ranks);
  return ranks;
}

}  // namespace kdr
