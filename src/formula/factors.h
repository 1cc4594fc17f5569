// Columns whose values are names: texts, and numbers that have labels.
#pragma once

#include <string>
#include <vector>

#include "formula/longcolumn.h"

namespace kdr {

struct Factor {
  std::vector<std::string> levels;  // those that occur, in their order
  std::vector<int> codes;           // [record]: place in `levels`, -1 missing
  std::vector<std::string> empty;   // levels that no record has
};

// Whether a column holds names: texts, or numbers each of which has a label.
[[nodiscard]] bool holdsnames(const LongColumn& column);
// Numbers as texts; texts as they are.
[[nodiscard]] LongColumn astexts(const LongColumn& column);
// The text with which a column that should be one of numbers became one of texts, where most of its texts are numbers;
// empty otherwise.
[[nodiscard]] std::string straytext(const LongColumn& column);
// A sentence that refuses such a column in a formula; empty when it is none.
[[nodiscard]] std::string strayrefusal(const LongColumn& column);
// The column's names, of the records in `kept` (empty: of all). Labels stand in the order of their values, plain
// numbers in theirs, texts in that of the alphabet, letters alike but for case side by side, unless they are `ordered`.
// An empty text and NA are missing.
[[nodiscard]] Factor factorof(const LongColumn& column, const std::vector<char>& kept);
// Numbers that tell the same names apart, in no order of meaning; -1 missing. [record]
[[nodiscard]] std::vector<int> namecodes(const LongColumn& column);

}  // namespace kdr
