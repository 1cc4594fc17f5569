// The forms of a residual file, for residualfile.cpp.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "report/residual/residualrow.h"

namespace kdr {

// Comma-separated text: names, then a line a row.
void writeheadfree(ResidualFile& file, int cases);
void writerowfree(ResidualFile& file, const ResidualRow& row);

// Fixed columns behind the commands that read them. Both packages read the same lines of data: the IDs (and the number
// of members, or the values of the fit group) on the first, every other group from a new line on, seven values to a
// line.
void writeheadsystat(ResidualFile& file, int cases);
void writeheadsas(ResidualFile& file, int cases);
void writerowcards(ResidualFile& file, const ResidualRow& row);

// System file, uncompressed: a slot of 8 bytes for a number, two for a text ID.
void writeheadspss(ResidualFile& file, int cases);
void writerowspss(ResidualFile& file, const ResidualRow& row);

// Release 113.
void writeheadstata(ResidualFile& file, int cases);
void writerowstata(ResidualFile& file, const ResidualRow& row);

// The text behind blanks that bring it to `width`.
[[nodiscard]] inline std::string rightjustified(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

// What the two forms of fixed columns share (cards.cpp).
inline constexpr int valuesperline = 7;
// The groups that start a line of their own, in order; empty ones are left out.
[[nodiscard]] std::vector<ColumnGroup> linegroups(const ResidualColumns& columns);
// Places of the decimal point of the values of a group.
[[nodiscard]] int decimalsof(ColumnGroup group);
// How many values stand on each line of a group of n: 7, 7, ..., the rest.
[[nodiscard]] std::vector<int> linesof(int n);

}  // namespace kdr
