// A column of a table with a row for each record, as a formula sees it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "core/names.h"

namespace kdr {

// A column of the file. One of numbers has `numbers`, one of texts has `codes` and `texts`.
struct LongColumn {
  std::string name;   // as the file has it
  std::string label;  // what the file says of it, or nothing
  bool text = false;
  bool ordered = false;            // of one of texts: they stand in the order of its levels
  std::string why;                 // where the file has the first text of a column that would be numeric without it
  std::vector<double> numbers;     // [record]; missingcode
  std::vector<int> codes;          // [record]: place in `texts`, -1 for an empty text
  std::vector<std::string> texts;  // in the order of the records
  ValueLabels labels;              // of numbers
  long long codedmissing = 0;      // numbers that count as missing since they were named so
};

// Its records.
[[nodiscard]] inline std::size_t lengthof(const LongColumn& column) {
  return column.text ? column.codes.size() : column.numbers.size();
}

}  // namespace kdr
