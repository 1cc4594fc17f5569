#include "core/modelcounts.h"

#include <cstdio>
#include <vector>

#include "core/modelwalk.h"

namespace kdr {

void countlevel1(Model& model) { model.coef.npi = static_cast<int>(modelrows(model).coefficients.size()); }

void countlevel2(Model& model) {
  const ModelRows rows = modelrows(model);
  for (int& count : model.nterms2.cells) count = 0;
  for (const CoefficientRow& coefficient : rows.coefficients)
    model.nterms2.row(coefficient.set)[coefficient.place] = coefficient.nterms;
  model.coef.nbeta = static_cast<int>(rows.terms.size());
}

void countlevel3(Model& model) {
  const ModelRows rows = modelrows(model);
  for (int& count : model.nterms3.cells) count = 0;
  for (const TermRow& term : rows.terms) model.nterms3.row(rows.owner(term).set)[term.place] = term.neffects;
  model.coef.ngamma = static_cast<int>(rows.effects.size());
}

void countextras(Model& model) {
  for (int e = 0; e < model.neqsets; ++e) {
    for (int c = 0; c < model.nextra2.width; ++c)
      model.nextra2.row(e)[c] = filledslots(model.extra2.row(e, c), maxextra);
    for (int b = 0; b < model.nextra3.width; ++b)
      model.nextra3.row(e)[b] = filledslots(model.extra3.row(e, b), maxextra);
  }

  const ModelRows rows = modelrows(model);
  model.coef.gammasubs.reset(rows.effects.size());
  for (std::size_t g = 0; g < rows.effects.size(); ++g) {
    const EffectRow& effect = rows.effects[g];
    char digits[40];
    std::snprintf(digits, sizeof digits, "%1.1d%1.1d%1.1d", rows.owner(effect).subscript, rows.termof(effect).subscript,
                  effect.subscript);
    std::snprintf(model.coef.gammasubs[g].text, sizeof model.coef.gammasubs[g].text, "%.12s", digits);
  }
}

void completemodel(Model& model) {
  countlevel1(model);
  countlevel2(model);
  countlevel3(model);
  countextras(model);
}

void labelrandomeffects(Model& model, const Array<Name>& names1, const Array<Name>& names2) {
  const ModelRows rows = modelrows(model);
  Coefficients& coef = model.coef;
  coef.ntaupi = randomatlevel2(rows);
  coef.ntaubeta = randomatlevel3(rows);
  coef.pinames.reset(static_cast<std::size_t>(coef.ntaupi));
  coef.betanames1.reset(static_cast<std::size_t>(coef.ntaubeta));
  coef.betanames2.reset(coef.betanames1.size());
  std::size_t i = 0;
  for (const CoefficientRow& coefficient : rows.coefficients)
    if (coefficient.random) coef.pinames[i++] = names1[static_cast<std::size_t>(coefficient.variable)];
  i = 0;
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    coef.betanames1[i] = names1[static_cast<std::size_t>(rows.owner(term).variable)];
    coef.betanames2[i++] = names2[static_cast<std::size_t>(term.variable)];
  }
}

}  // namespace kdr
