// Tables of intervals that stand beside the tables of estimates: by the profile of the likelihood, by the bootstrap.
#pragma once

#include <string>
#include <vector>

#include "core/results.h"

namespace kdr {

// A row: what it is of, and its intervals, one for each column.
struct IntervalRow {
  std::string label;
  std::vector<Interval> intervals;
};
// Under a heading, with the name of each column.
void intervaltable(const char* heading, const std::vector<std::string>& columns, const std::vector<IntervalRow>& rows);

// The labels of the fixed effects and of the elements of both taus, as the rows of such a table name them.
[[nodiscard]] std::vector<std::string> effectlabels();
[[nodiscard]] std::vector<std::string> taulabels(Tau which);

void profiletable(const ProfileIntervals& profile);
void sharestable(const VarianceShares& shares);
// What came of the replicates, in a sentence or two, and the table.
[[nodiscard]] std::string bootstrapwords(const BootstrapResults& results);
void bootstraptable(const BootstrapResults& results);

}  // namespace kdr
