// The one walk over a model: its coefficients of the three levels as lists, in the order in which the design, the
// counts, the labels, the start values and the tables take them.
//
// The order: equation set by set; in a set the level-1 coefficients by variable, the intercept first and the thresholds
// of an ordinal model last; then the level-2 terms of each coefficient, and the level-3 terms of each of these.
//
// A threshold is a level-1 coefficient that is fixed at both levels: its equation of level 2 is INTRCPT2 alone, and
// that of level 3 INTRCPT3 alone, so it has one fixed effect. The tables of the model hold nothing of these equations.
#pragma once

#include <string>
#include <vector>

#include "core/model.h"

namespace kdr {

// A level-1 coefficient.
struct CoefficientRow {
  int set;         // equation set
  int place;       // number within the set, from 0
  int variable;    // level-1 variable, 0 the intercept
  int subscript;   // place, or place + 1 in a model without a level-1 intercept
  bool threshold;  // a threshold of an ordinal model
  bool random;     // has a level-2 random effect
  int firstterm;   // its first level-2 term
  int nterms;
};

// A term of a level-1 coefficient's equation, which is a level-2 coefficient.
struct TermRow {
  int owner;        // its level-1 coefficient
  int place;        // number among the level-2 coefficients of the set, from 0
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
  int term;         // its level-2 coefficient
  int variable;     // level-3 variable, 0 the intercept
  int number;       // within the equation, from 0
  int subscript;    // number, or number + 1 when the equation has no intercept
  int group;        // group of constrained fixed effects, 0 free
  bool removed;     // takes the value of the first member of its group, and is no effect of the reduced model
};

// Every owner, first, coefficient and term above is an index into these lists.
struct ModelRows {
  std::vector<CoefficientRow> coefficients;
  std::vector<TermRow> terms;
  std::vector<EffectRow> effects;

  [[nodiscard]] const CoefficientRow& owner(const TermRow& term) const {
    return coefficients[static_cast<std::size_t>(term.owner)];
  }
  [[nodiscard]] const CoefficientRow& owner(const EffectRow& effect) const {
    return coefficients[static_cast<std::size_t>(effect.coefficient)];
  }
  [[nodiscard]] const TermRow& termof(const EffectRow& effect) const {
    return terms[static_cast<std::size_t>(effect.term)];
  }
};

// The model as the tables stand; a model that the dialogue is still asking for has the rows that are known by then.
[[nodiscard]] ModelRows modelrows(const Model& model);

// The fixed effect that each effect of the complete model is, once constraints are applied: members of a group share
// one.
[[nodiscard]] std::vector<int> reducedeffects(const ModelRows& rows);

// Coefficients random at level 2, and at level 3: the orders of taupi and taubeta.
[[nodiscard]] int randomatlevel2(const ModelRows& rows);
[[nodiscard]] int randomatlevel3(const ModelRows& rows);

// The digits of a subscript, number behind number.
[[nodiscard]] std::string termdigits(const ModelRows& rows, const TermRow& term);
[[nodiscard]] std::string effectdigits(const ModelRows& rows, const EffectRow& effect);

// Filled slots of a row of terms.
[[nodiscard]] int filledslots(const int* row, int width);

}  // namespace kdr
