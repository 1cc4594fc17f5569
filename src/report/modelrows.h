// The model as lists in the order of its coefficients, for those who label or print them one by one.
#pragma once

#include <string>
#include <vector>

#include "driver/tables.h"

namespace kdr {

// A level-1 coefficient.
struct CoefficientRow {
  int set;         // equation set
  int place;       // number within the set, from 0
  int variable;    // level-1 variable, 0 the intercept
  int subscript;   // place, or place + 1 in a model without a level-1 intercept
  bool threshold;  // a threshold of an ordinal model; it has one fixed effect and no equations of its own
  bool random;     // has a level-2 random effect
  int firstterm;   // its first level-2 term
  int nterms;
};

// A term of a level-1 coefficient's equation, which is a level-2 coefficient.
struct TermRow {
  int owner;        // its level-1 coefficient
  int variable;     // level-2 variable, 0 the intercept
  int number;       // within the equation, from 0
  int subscript;    // number, or number + 1 when the equation has no intercept
  bool random;      // has a level-3 random effect
  int firsteffect;  // its first fixed effect
  int neffects;
};

// A term of a level-2 coefficient's equation, which is a fixed effect.
struct EffectRow {
  int coefficient;  // its level-1 coefficient
  int term;         // its level-2 coefficient, -1 for a threshold
  int variable;     // level-3 variable, 0 the intercept
  int number;       // within the equation, from 0
  int subscript;    // number, or number + 1 when the equation has no intercept
  int constraint;   // entry in the list of constraints; below 0: removed by them
};

// Every owner, first and coefficient above is an index into these lists.
struct ModelRows {
  std::vector<CoefficientRow> coefficients;
  std::vector<TermRow> terms;
  std::vector<EffectRow> effects;
};

// Reads run.model, over all equation sets.
[[nodiscard]] ModelRows modelrows();

// The digits of a subscript, number behind number.
[[nodiscard]] std::string termdigits(const ModelRows& rows, const TermRow& term);
[[nodiscard]] std::string effectdigits(const ModelRows& rows, const EffectRow& effect);

// True when several equation sets stand side by side, one for each category but the last.
[[nodiscard]] bool multinomialrun();
// At most 4 characters of the label of category k; empty when it has none.
[[nodiscard]] std::string categorylabel(int k);
// The same as the report shows it.
[[nodiscard]] std::string categoryof(int k);
// The category of each of the n rows of a tau; empty texts unless multinomial.
[[nodiscard]] std::vector<std::string> randomcategories(Tau which, int n);

}  // namespace kdr
