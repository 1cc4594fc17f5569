// From terms to the columns of R's model matrix, and from these to the equations of the levels.
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <vector>

#include "formula/variables.h"

namespace kdr {

// One column of a variable: of a factor the indicator of a level.
struct ColumnPart {
  const Variable* variable = nullptr;
  int column = 0;    // of a variable of numbers; of a factor its level
  std::string name;  // as R writes it

  [[nodiscard]] double at(std::size_t record) const {
    if (variable->factor) return variable->names.codes[record] == column ? 1.0 : 0.0;
    return (*variable->columns[static_cast<std::size_t>(column)])[record];
  }
};

// A column of the model matrix: the product of its parts, 1 without any.
struct ModelColumn {
  std::string name, term;
  std::vector<ColumnPart> parts;
};
[[nodiscard]] double valueat(const std::vector<ColumnPart>& parts, std::size_t record);

// The columns of a sum of terms, in R's order and under R's names.
[[nodiscard]] std::vector<ModelColumn> modelmatrix(FormulaData& data, const Terms& terms);

// For each column, over the records in `order`, whether those before it give it already (so that it would have no
// effect of its own).
[[nodiscard]] std::vector<bool> redundant(const std::vector<ModelColumn>& columns,
                                          const std::vector<std::uint32_t>& order);

// What a column is made of at one level: a variable of the MDM file. In the equations the intercept is -1.
struct Piece {
  std::string name;   // as R writes it
  std::string shown;  // the same without backticks around columns' names
  std::vector<ColumnPart> parts;
};
inline constexpr int interceptpiece = -1;

// A level-1 coefficient's term: which pieces it has at levels 1 and 2.
struct CoefficientPieces {
  int piece1 = interceptpiece, piece2 = interceptpiece;
  auto operator<=>(const CoefficientPieces&) const = default;
};
struct FixedEffect {
  CoefficientPieces of;
  int piece3 = interceptpiece;
  std::string name, term;  // R's
};
// Random effects of a level that have their covariances among them, and none with others.
using RandomBlock = std::vector<CoefficientPieces>;

// A level-2 coefficient: its equation at level 3.
struct Level2Term {
  int piece = interceptpiece;
  std::vector<int> terms;  // level-3 pieces
  bool random = false;
};
// A level-1 coefficient: its equation at level 2.
struct CoefficientTerms {
  int piece = interceptpiece;
  std::vector<Level2Term> terms;
  bool random = false;
};

// Level 1, and a level for each grouping. `blocks` has them from level 2 on.
struct Design {
  std::vector<Piece> pieces[3];
  std::vector<FixedEffect> fixed;
  std::vector<RandomBlock> blocks[2];

  // The equations: the intercept first, then in the order of the pieces, which is that of all estimates.
  [[nodiscard]] std::vector<CoefficientTerms> tree() const;
  // Random effects of level 2 or 3: their number, themselves in the order of tau, and the block of each.
  [[nodiscard]] std::size_t effects(int level) const;
  [[nodiscard]] RandomBlock effectsof(int level) const;
  [[nodiscard]] std::vector<std::size_t> blocksof(int level) const;
  // Whether all of them are independent of each other; whether some are alone; and whether that is so at any level.
  [[nodiscard]] bool diagonal(int level) const;
  [[nodiscard]] bool partly(int level) const;
  [[nodiscard]] bool restricted() const { return partly(2) || partly(3); }
};

// Splits the columns at the levels of their variables. `inner` and `outer` are the groupings' places in `data`, without
// `outer` in a model of two levels.
// Refuses a random effect that its level cannot have.
[[nodiscard]] Design designof(FormulaData& data, const FormulaModel& model, const std::vector<ModelColumn>& fixed,
                              std::size_t inner, std::optional<std::size_t> outer);

}  // namespace kdr
