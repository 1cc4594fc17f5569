// A design as lines of a command file.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "formula/design.h"

namespace kdr {

struct EquationLines {
  const Design* design = nullptr;
  std::string outcome, counts;        // names in the MDM file
  std::string weights[3];             // likewise
  std::vector<std::string> names[3];  // likewise, of the pieces of each level
  std::vector<std::string> legend;    // "FEMALYES is femaleyes"
  std::vector<std::string> head;      // the lines before the equations
  int categories = 0;                 // of an ordinal or multinomial outcome
  bool multinomial = false;
  bool twolevel = false;  // without lines of level 3
};

// The lines of the equations and of what restricts their random effects, and those of the weights.
[[nodiscard]] std::vector<std::string> equationlines(const EquationLines& lines);

}  // namespace kdr
