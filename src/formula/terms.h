// What a formula says: outcome, terms by the algebra of R's formulas, random parts by that of lme4.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "formula/expression.h"

namespace kdr {

// A product of variables: a bit for each.
using Term = std::uint64_t;

// A sum of terms. Variables stand in the order in which the formula names them; terms of fewer variables stand before
// those of more, and else in the order of the formula.
struct Terms {
  std::vector<const Expression*> variables;
  std::vector<std::string> names;  // of the variables, as R writes them
  std::vector<Term> terms;
  bool intercept = true;
};

// A random part: its effects have a covariance matrix of their own.
struct RandomPart {
  Terms terms;
  std::vector<std::string> group;  // the columns whose values together tell the units
  Place place;                     // of the whole part
  Place grouping;
};

// Its pointers go into `root`.
struct FormulaModel {
  std::string text;
  Expression root;
  const Expression* outcome = nullptr;
  Terms fixed;
  std::vector<const Expression*> offsets;
  std::vector<RandomPart> randoms;
};

// Reads a formula. Refuses what has no meaning.
void readformula(const std::string& text, FormulaModel& model);

// How R codes each factor of a term: by contrasts, or by an indicator of each level where the sum does not hold the
// term's margin without it. [term][variable]; of no meaning for numbers. `factors` tells which variables are such.
[[nodiscard]] std::vector<std::vector<bool>> indicatorcoded(const Terms& terms, const std::vector<bool>& factors);

}  // namespace kdr
