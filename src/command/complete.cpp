#include "command/complete.h"

#include <cstdio>
#include <vector>

#include "core/modelwalk.h"
#include "driver/runrecord.h"

namespace kdr {

void countlevel1() { run.model.coef.npi = static_cast<int>(modelrows(run.model).coefficients.size()); }

void countlevel2() {
  const ModelRows rows = modelrows(run.model);
  for (int& count : run.model.nterms2.cells) count = 0;
  for (const CoefficientRow& coefficient : rows.coefficients)
    run.model.nterms2.row(coefficient.set)[coefficient.place] = coefficient.nterms;
  run.model.coef.nbeta = static_cast<int>(rows.terms.size());
}

void countlevel3() {
  const ModelRows rows = modelrows(run.model);
  for (int& count : run.model.nterms3.cells) count = 0;
  for (const TermRow& term : rows.terms) run.model.nterms3.row(rows.owner(term).set)[term.place] = term.neffects;
  run.model.coef.ngamma = static_cast<int>(rows.effects.size());
}

void countextras() {
  Model& model = run.model;
  for (int e = 0; e < run.model.neqsets; ++e) {
    for (int c = 0; c < run.mdm.ncol1; ++c) model.nextra2.row(e)[c] = filledslots(model.extra2.row(e, c), maxextra);
    for (int b = 0; b < run.mdm.maxbeta; ++b) model.nextra3.row(e)[b] = filledslots(model.extra3.row(e, b), maxextra);
  }

  const ModelRows rows = modelrows(run.model);
  run.model.coef.gammasubs.reset(rows.effects.size());
  for (std::size_t g = 0; g < rows.effects.size(); ++g) {
    const EffectRow& effect = rows.effects[g];
    char digits[40];
    std::snprintf(digits, sizeof digits, "%1.1d%1.1d%1.1d", rows.owner(effect).subscript, rows.termof(effect).subscript,
                  effect.subscript);
    std::snprintf(run.model.coef.gammasubs[g].text, sizeof run.model.coef.gammasubs[g].text, "%.12s", digits);
  }
}

void completemodel() {
  countlevel1();
  countlevel2();
  countlevel3();
  countextras();
}

int randomlevel1() { return randomatlevel2(modelrows(run.model)); }

int randomlevel2() { return randomatlevel3(modelrows(run.model)); }

int countfixedeffects() { return static_cast<int>(modelrows(run.model).effects.size()); }

void labelrandomeffects() {
  const ModelRows rows = modelrows(run.model);
  Coefficients& coef = run.model.coef;
  coef.ntaupi = randomatlevel2(rows);
  coef.ntaubeta = randomatlevel3(rows);
  coef.pinames.reset(static_cast<std::size_t>(coef.ntaupi));
  coef.betanames1.reset(static_cast<std::size_t>(coef.ntaubeta));
  coef.betanames2.reset(coef.betanames1.size());
  std::size_t i = 0;
  for (const CoefficientRow& coefficient : rows.coefficients)
    if (coefficient.random) coef.pinames[i++] = run.mdm.names1[static_cast<std::size_t>(coefficient.variable)];
  i = 0;
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    coef.betanames1[i] = run.mdm.names1[static_cast<std::size_t>(rows.owner(term).variable)];
    coef.betanames2[i++] = run.mdm.names2[static_cast<std::size_t>(term.variable)];
  }
}

void markdeletion() {
  if (run.mdm.deletednow) return;
  for (int v = 1; v <= run.mdm.nvar1; ++v) {
    Deletion& mark = run.model.delete1[static_cast<std::size_t>(v) - 1];
    if (mark == Deletion::named) continue;
    bool used = v == run.model.wgtvar1 || v == run.model.autovknown ||
                (run.model.outcome.counted && run.model.outcome.countvariable == v);
    for (int e = 0; e < run.model.neqsets; ++e) used = used || run.model.use1.row(e)[v] != Use::none;
    mark = used ? Deletion::ofmodel : Deletion::none;
  }
}

void compactlists() {
  const auto compact = [](const Array<int>& marks, Array<int>& list, int& count) {
    list.reset(marks.size());
    count = 0;
    for (std::size_t v = 1; v < marks.size(); ++v)
      if (marks[v] != 0) list[static_cast<std::size_t>(count++)] = static_cast<int>(v);
  };
  compact(run.out.wanted1vars1, run.out.res1vars1, run.out.nres1vars1);
  compact(run.out.wanted1vars2, run.out.res1vars2, run.out.nres1vars2);
  compact(run.out.wanted1vars3, run.out.res1vars3, run.out.nres1vars3);
  compact(run.out.wanted2vars2, run.out.res2vars2, run.out.nres2vars2);
  compact(run.out.wanted2vars3, run.out.res2vars3, run.out.nres2vars3);
  compact(run.out.wanted3vars3, run.out.res3vars3, run.out.nres3vars3);
}

}  // namespace kdr
