#include "core/modelwalk.h"

#include <algorithm>

namespace kdr {

namespace {

// The equation of a threshold at level 2 and at level 3.
constexpr int interceptonly[] = {0};

// The filled slots of a row of terms, and what its subscripts start from.
struct Equation {
  const int* terms;
  int n, shift;
};

Equation equationof(const int* row, int width) {
  const int n = filledslots(row, width);
  return {row, n, n > 0 && row[0] != 0 ? 1 : 0};
}

// The fixed effects of the term that stands last in `rows.terms`.
void addeffects(const Model& model, ModelRows& rows, const Equation& equation) {
  TermRow& term = rows.terms.back();
  term.firsteffect = static_cast<int>(rows.effects.size());
  term.neffects = equation.n;
  for (int u = 0; u < equation.n; ++u) {
    const std::size_t g = rows.effects.size();
    rows.effects.push_back({term.owner, static_cast<int>(rows.terms.size()) - 1, equation.terms[u], u,
                            u + equation.shift, g < model.constraints.size() ? model.constraints[g] : 0,
                            g < model.removed.size() && model.removed[g] != 0});
  }
}

// The terms of the coefficient that stands last in `rows.coefficients`; `place` runs on from coefficient to
// coefficient.
void addterms(const Model& model, ModelRows& rows, int& place) {
  CoefficientRow& coefficient = rows.coefficients.back();
  const int owner = static_cast<int>(rows.coefficients.size()) - 1;
  const Equation none{interceptonly, 1, 0};
  const Equation equation = coefficient.threshold
                                ? none
                                : equationof(model.terms2.row(coefficient.set, coefficient.place), model.terms2.width);
  coefficient.firstterm = static_cast<int>(rows.terms.size());
  coefficient.nterms = equation.n;
  for (int s = 0; s < equation.n; ++s, ++place) {
    const bool random = !coefficient.threshold && model.fixed2.row(coefficient.set)[place] == 0;
    rows.terms.push_back({owner, place, equation.terms[s], s, s + equation.shift, random, 0, 0});
    addeffects(model, rows,
               coefficient.threshold ? none : equationof(model.terms3.row(coefficient.set, place), model.terms3.width));
  }
}

}  // namespace

int filledslots(const int* row, int width) {
  int n = 0;
  while (n < width && row[n] != noslot) ++n;
  return n;
}

ModelRows modelrows(const Model& model) {
  ModelRows rows;
  const int nvar1 = static_cast<int>(model.delete1.size());  // the columns behind them are thresholds
  for (int set = 0; set < model.neqsets; ++set) {
    int c = 0, place = 0;
    for (int v = 0; v < model.use1.width; ++v) {
      if (model.use1.row(set)[v] != Use::predictor) continue;
      const bool threshold = model.outcome.ordinal() && v > nvar1;
      const bool random = !threshold && model.fixed1.row(set)[c] == 0;
      rows.coefficients.push_back({set, c, v, model.nointercept1 ? c + 1 : c, threshold, random, 0, 0});
      addterms(model, rows, place);
      ++c;
    }
  }
  return rows;
}

int randomatlevel2(const ModelRows& rows) {
  const auto random = [](const CoefficientRow& row) { return row.random; };
  return static_cast<int>(std::count_if(rows.coefficients.begin(), rows.coefficients.end(), random));
}

int randomatlevel3(const ModelRows& rows) {
  const auto random = [](const TermRow& row) { return row.random; };
  return static_cast<int>(std::count_if(rows.terms.begin(), rows.terms.end(), random));
}

std::string termdigits(const ModelRows& rows, const TermRow& term) {
  return std::to_string(rows.owner(term).subscript) + std::to_string(term.subscript);
}

std::string effectdigits(const ModelRows& rows, const EffectRow& effect) {
  return termdigits(rows, rows.termof(effect)) + std::to_string(effect.subscript);
}

std::vector<int> reducedeffects(const ModelRows& rows) {
  std::vector<int> reduced, firstofgroup(rows.effects.size() + 1, -1);
  int next = 0;
  for (const EffectRow& effect : rows.effects) {
    if (effect.removed) {
      reduced.push_back(firstofgroup[static_cast<std::size_t>(effect.group)]);
      continue;
    }
    if (effect.group > 0) firstofgroup[static_cast<std::size_t>(effect.group)] = next;
    reduced.push_back(next++);
  }
  return reduced;
}

}  // namespace kdr
