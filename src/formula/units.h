// The units of the levels: records in their order, and the level at which a variable is constant.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/names.h"

namespace kdr {

// Takes a sentence.
using Tell = std::function<void(const std::string& words)>;

// The units that a column of IDs makes.
struct UnitKeys {
  std::vector<int> ofrecord;       // [record]: its unit, from 0 in the order of the IDs; -1 without an ID
  std::vector<Id> ids;             // [unit]
  std::vector<std::string> whole;  // [unit]: its text as the file has it first; nothing for numbers
  bool numbered = false;           // the IDs are numbers in the place of texts
};
// The records in the order of their units. Records without an ID, and those that `kept` leaves out (empty: none), are
// not among them.
struct LongUnits {
  int levels = 3;  // 2: level3 has nothing, and first3 is first2
  UnitKeys level3, level2;
  std::vector<std::uint32_t> order;         // places are indices into it
  std::vector<std::size_t> first2, first3;  // places where a unit begins
  bool sorted = true;                       // the file has this order

  // The units of the highest level.
  [[nodiscard]] const UnitKeys& outer() const { return levels == 3 ? level3 : level2; }
};
void sortunits(LongUnits& units, const std::vector<char>& kept);

// The highest level, as an index, at which a variable is constant and never missing. `tell` is told of one
// that varies within some few units, as slips of the data make it, and of one that only gaps keep at level 1.
[[nodiscard]] int levelof(const std::string& name, const LongUnits& units,
                          const std::function<double(std::size_t record)>& value, const Tell& tell);

}  // namespace kdr
