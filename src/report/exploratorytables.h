// The tables of the exploratory analysis.
#pragma once

#include "core/results.h"
#include "core/tables.h"

namespace kdr {

// The largest number of candidates that a line of the command file lists; 0: the level has no analysis.
[[nodiscard]] int mostcandidates(const IntTable& counts);

void exploratorytables(const ExploratoryAnalysis& analysis);

}  // namespace kdr
