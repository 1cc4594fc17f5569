// Columns of a long file whose values are names: texts, and numbers that have labels.
#pragma once

#include <string>
#include <vector>

#include "construct/longfile.h"

namespace kdr {

struct Factor {
  std::vector<std::string> levels;  // those that occur, in their order
  std::vector<int> codes;           // [record]: place in `levels`, -1 missing
  std::vector<std::string> empty;   // levels that no record has
};

// Whether a column holds names: texts, or numbers each of which has a label.
[[nodiscard]] bool holdsnames(const LongColumn& column);
// The text with which a column that should be one of numbers became one of texts, where most of its texts are numbers;
// empty otherwise.
[[nodiscard]] std::string straytext(const LongColumn& column);
// The column's names, of the records in `kept` (empty: of all). Labels stand in the order of their values, plain
// numbers in theirs, texts in that of the alphabet: letters alike but for case side by side. An empty text and NA are
// missing.
[[nodiscard]] Factor factorof(const LongColumn& column, const std::vector<char>& kept);

}  // namespace kdr
