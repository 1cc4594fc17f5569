#include "report/modelrows.h"

#include <cstdio>

#include "driver/runrecord.h"
#include "report/stream.h"

namespace kdr {

namespace {

int filled(const int* row, int width) {
  int n = 0;
  while (n < width && row[n] != noslot) ++n;
  return n;
}

int constraintof(std::size_t effect) {
  return effect < run.model.constraints.size() ? run.model.constraints[effect] : 0;
}

// The fixed effects of the term that stands last in `rows.terms`; b is its place among the set's level-2 coefficients.
void addeffects(ModelRows& rows, int set, int b) {
  TermRow& term = rows.terms.back();
  const int* row = run.model.terms3.row(set, b);
  term.firsteffect = static_cast<int>(rows.effects.size());
  term.neffects = filled(row, run.mdm.ncol3);
  const int shift = term.neffects > 0 && row[0] != 0 ? 1 : 0;
  for (int u = 0; u < term.neffects; ++u)
    rows.effects.push_back(
        {term.owner, static_cast<int>(rows.terms.size()) - 1, row[u], u, u + shift, constraintof(rows.effects.size())});
}

// The terms of the coefficient that stands last in `rows.coefficients`; b runs on from coefficient to coefficient.
void addterms(ModelRows& rows, int& b) {
  CoefficientRow& coefficient = rows.coefficients.back();
  const int owner = static_cast<int>(rows.coefficients.size()) - 1;
  coefficient.firstterm = static_cast<int>(rows.terms.size());
  if (coefficient.threshold) {
    rows.effects.push_back({owner, -1, 0, 0, 0, constraintof(rows.effects.size())});
    return;
  }
  const int* row = run.model.terms2.row(coefficient.set, coefficient.place);
  coefficient.nterms = filled(row, run.mdm.ncol2);
  const int shift = coefficient.nterms > 0 && row[0] != 0 ? 1 : 0;
  for (int t = 0; t < coefficient.nterms; ++t, ++b) {
    const bool random = run.model.fixed2.row(coefficient.set)[b] == 0;
    rows.terms.push_back({owner, row[t], t, t + shift, random, 0, 0});
    addeffects(rows, coefficient.set, b);
  }
}

}  // namespace

ModelRows modelrows() {
  ModelRows rows;
  for (int set = 0; set < run.kind.neqsets; ++set) {
    int c = 0, b = 0;
    for (int v = 0; v < run.mdm.ncol1; ++v) {
      if (run.model.use1.row(set)[v] != 1) continue;
      const bool threshold = run.kind.ordinal && v > run.mdm.nvar1;
      const bool random = !threshold && run.model.fixed1.row(set)[c] == 0;
      rows.coefficients.push_back({set, c, v, run.kind.nointercept1 ? c + 1 : c, threshold, random, 0, 0});
      addterms(rows, b);
      ++c;
    }
  }
  return rows;
}

std::string termdigits(const ModelRows& rows, const TermRow& term) {
  return std::to_string(rows.coefficients[static_cast<std::size_t>(term.owner)].subscript) +
         std::to_string(term.subscript);
}

std::string effectdigits(const ModelRows& rows, const EffectRow& effect) {
  const std::string head =
      effect.term < 0 ? std::to_string(rows.coefficients[static_cast<std::size_t>(effect.coefficient)].subscript) + "0"
                      : termdigits(rows, rows.terms[static_cast<std::size_t>(effect.term)]);
  return head + std::to_string(effect.subscript);
}

bool multinomialrun() { return run.kind.nonlin == 3 && !run.kind.ordinal; }

std::string categorylabel(int k) {
  if (k < 0 || static_cast<std::size_t>(k) >= run.kind.categorylabel.size()) return {};
  char text[5];
  std::snprintf(text, sizeof text, "%.4s", run.kind.categorylabel[k].text);
  return text;
}

std::string categoryof(int k) { return escaped(categorylabel(k)); }

std::vector<std::string> randomcategories(Tau which, int n) {
  std::vector<std::string> categories;
  if (multinomialrun()) {
    const ModelRows rows = modelrows();
    if (which == Tau::pi) {
      for (const CoefficientRow& coefficient : rows.coefficients)
        if (coefficient.random) categories.push_back(categoryof(coefficient.set));
    } else {
      for (const TermRow& term : rows.terms)
        if (term.random) categories.push_back(categoryof(rows.coefficients[static_cast<std::size_t>(term.owner)].set));
    }
  }
  categories.resize(static_cast<std::size_t>(n));
  return categories;
}

}  // namespace kdr
