// The tables of the exploratory analysis.
#pragma once

#include <vector>

#include "core/constants.h"
#include "core/tables.h"

namespace kdr {

inline constexpr int fewexploratoryunits = 2;  // no more than this many units have no regression

// One candidate's regression. A coefficient of missingcode cannot be computed and prints as NC.
struct ExploratoryFit {
  double coefficient = missingcode;
  double error = 0.0;
  [[nodiscard]] double t() const { return error == 0.0 ? 0.0 : coefficient / error; }
};

// The candidates of one random effect.
struct ExploratoryBlock {
  int row = 0;                 // among the random effects of its level
  std::vector<int> variables;  // of the level, 0 the intercept
  std::vector<ExploratoryFit> fits;
};

// Blocks of all random effects of a level; none at a level without candidates.
struct ExploratoryAnalysis {
  std::vector<ExploratoryBlock> level2, level3;
};

// The largest number of candidates that a line of the command file lists; 0: the level has no analysis.
[[nodiscard]] int mostcandidates(const IntTable& counts);

void exploratorytables(const ExploratoryAnalysis& analysis);

}  // namespace kdr
