#include "formula/units.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "core/constants.h"
#include "core/formatted.h"

namespace kdr {

namespace {

// Units, by the places where they begin, in which a variable has more than one value, and others in which it is
// missing.
struct Constancy {
  std::size_t varying = 0, gaps = 0;
};

Constancy constancy(const LongUnits& units, const std::vector<std::size_t>& first,
                    const std::function<double(std::size_t)>& value) {
  Constancy found;
  for (std::size_t unit = 0; unit < first.size(); ++unit) {
    const std::size_t end = unit + 1 < first.size() ? first[unit + 1] : units.order.size();
    const double at = value(units.order[first[unit]]);
    std::size_t i = first[unit] + 1;
    while (i < end && value(units.order[i]) == at) ++i;
    found.varying += i < end;
    found.gaps += i == end && at == missingcode;
  }
  return found;
}

// Says so when the variable varies within a twentieth of the units or less.
bool tellslips(const std::string& name, std::size_t varying, std::size_t units, int level, const Tell& tell) {
  const bool few = varying > 0 && varying * 20 <= units;
  if (few)
    tell(name +
         formatted(" varies within %zu of %zu level-%d units, and is constant in all others.", varying, units, level));
  return few;
}

// Brings records into the order of their units and leaves those of one unit in theirs: each has its place by how many
// stand before it.
void sortbyunit(std::vector<std::uint32_t>& order, const std::vector<int>& unit) {
  std::vector<std::uint32_t> next, sorted(order.size());
  for (const std::uint32_t record : order) {
    const auto of = static_cast<std::size_t>(unit[record]);
    if (of + 1 >= next.size()) next.resize(of + 2);
    ++next[of + 1];
  }
  std::partial_sum(next.begin(), next.end(), next.begin());
  for (const std::uint32_t record : order) sorted[next[static_cast<std::size_t>(unit[record])]++] = record;
  order = std::move(sorted);
}

}  // namespace

void sortunits(LongUnits& units, const std::vector<char>& kept) {
  const std::vector<int>&id3 = units.outer().ofrecord, &id2 = units.level2.ofrecord;
  units.order.clear();
  for (std::size_t i = 0; i < id3.size(); ++i)
    if (id3[i] >= 0 && id2[i] >= 0 && (kept.empty() || kept[i] != 0))
      units.order.push_back(static_cast<std::uint32_t>(i));
  const auto before = [&](std::uint32_t a, std::uint32_t b) {
    return id3[a] != id3[b] ? id3[a] < id3[b] : id2[a] < id2[b];
  };
  units.sorted = std::is_sorted(units.order.begin(), units.order.end(), before);
  if (!units.sorted) {
    sortbyunit(units.order, id2);
    if (units.levels == 3) sortbyunit(units.order, id3);
  }
  units.first2.clear();
  units.first3.clear();
  for (std::size_t i = 0; i < units.order.size(); ++i) {
    if (i == 0 || before(units.order[i - 1], units.order[i])) units.first2.push_back(i);
    if (i == 0 || id3[units.order[i - 1]] != id3[units.order[i]]) units.first3.push_back(i);
  }
}

int levelof(const std::string& name, const LongUnits& units, const std::function<double(std::size_t)>& value,
            const Tell& tell) {
  bool told = false;
  if (units.levels == 3) {
    const Constancy at3 = constancy(units, units.first3, value);
    if (at3.varying == 0 && at3.gaps == 0) return 2;
    told = tellslips(name, at3.varying, units.first3.size(), 3, tell);
  }
  const Constancy at2 = constancy(units, units.first2, value);
  if (at2.varying > 0) {
    if (!told) tellslips(name, at2.varying, units.first2.size(), 2, tell);
    return 0;
  }
  if (at2.gaps == 0) return 1;
  tell(name +
       formatted(" does not vary within level-2 units, but is missing in %zu of them: it stays at level 1.", at2.gaps));
  return 0;
}

}  // namespace kdr
