#include "model/complete.h"

#include <cstdio>

#include "model/modelwalk.h"

namespace kdr {

void countlevel1() {
  int n = 0;
  eachcoefficient1([&](const Coefficient1&) { ++n; });
  run.coef.npi = n;
  run.coef.pinames.reset(static_cast<std::size_t>(n));
  std::size_t i = 0;
  eachcoefficient1([&](const Coefficient1& coefficient) {
    run.coef.pinames[i++] = run.mdm.names1[static_cast<std::size_t>(coefficient.v)];
  });
}

void countlevel2() {
  int n = 0;
  for (int& count : run.model.nterms2.cells) count = 0;
  eachcoefficient2([&](const Coefficient2& coefficient) {
    ++n;
    ++run.model.nterms2.row(coefficient.owner.e)[coefficient.owner.c];
  });
  run.coef.nbeta = n;
  run.coef.betanames1.reset(static_cast<std::size_t>(n));
  run.coef.betanames2.reset(static_cast<std::size_t>(n));
  std::size_t i = 0;
  eachcoefficient2([&](const Coefficient2& coefficient) {
    run.coef.betanames1[i] = run.mdm.names1[static_cast<std::size_t>(coefficient.owner.v)];
    run.coef.betanames2[i++] = run.mdm.names2[static_cast<std::size_t>(coefficient.w)];
  });
}

void countlevel3() {
  for (int& count : run.model.nterms3.cells) count = 0;
  eachfixedeffect(
      [](const Coefficient2& coefficient, int, int) { ++run.model.nterms3.row(coefficient.owner.e)[coefficient.b]; });
  run.coef.ngamma = countfixedeffects();
}

void countextras() {
  ModelSpec& model = run.model;
  for (int e = 0; e < run.kind.neqsets; ++e) {
    for (int c = 0; c < run.mdm.ncol1; ++c) model.nextra2.row(e)[c] = filledslots(model.extra2.row(e, c), maxextra);
    for (int b = 0; b < run.mdm.maxbeta; ++b) model.nextra3.row(e)[b] = filledslots(model.extra3.row(e, b), maxextra);
  }

  run.coef.gammasubs.reset(static_cast<std::size_t>(countfixedeffects()));
  std::size_t i = 0;
  eachfixedeffect([&](const Coefficient2& coefficient, int u, int) {
    const Coefficient1& owner = coefficient.owner;
    const int first = owner.c + (run.kind.nointercept1 ? 1 : 0);
    const int second = coefficient.s + firstsubscript(model.terms2.row(owner.e, owner.c));
    const int third = u + firstsubscript(model.terms3.row(owner.e, coefficient.b));
    char digits[40];
    std::snprintf(digits, sizeof digits, "%1.1d%1.1d%1.1d", first, second, third);
    Name& slot = run.coef.gammasubs[i++];
    std::snprintf(slot.text, sizeof slot.text, "%.12s", digits);
  });
}

void completemodel() {
  countlevel1();
  countlevel2();
  countlevel3();
  countextras();
}

int randomlevel1() {
  int n = 0;
  eachcoefficient1([&](const Coefficient1& coefficient) {
    if (!isthreshold(coefficient.v) && run.model.fixed1.row(coefficient.e)[coefficient.c] == 0) ++n;
  });
  return n;
}

int randomlevel2() {
  int n = 0;
  eachcoefficient2([&](const Coefficient2& coefficient) {
    if (run.model.fixed2.row(coefficient.owner.e)[coefficient.b] == 0) ++n;
  });
  return n;
}

int countfixedeffects() {
  int n = 0;
  eachfixedeffect([&](const Coefficient2&, int, int) { ++n; });
  return n;
}

void droprandomlesslabels() {
  Coefficients& coef = run.coef;
  std::size_t i = 0, kept = 0;
  eachcoefficient2([&](const Coefficient2& coefficient) {
    if (run.model.fixed2.row(coefficient.owner.e)[coefficient.b] == 0) {
      coef.betanames1[kept] = coef.betanames1[i];
      coef.betanames2[kept++] = coef.betanames2[i];
    }
    ++i;
  });
  for (; kept < i; ++kept) coef.betanames1[kept] = coef.betanames2[kept] = paddedname("");
}

void markdeletion() {
  if (run.mdm.deletednow) return;
  for (int v = 1; v <= run.mdm.nvar1; ++v) {
    int& mark = run.model.delete1[static_cast<std::size_t>(v) - 1];
    if (mark == 2) continue;
    bool used = v == run.out.wgtvar1 || v == run.out.autovknown || (run.kind.nlcount && v == run.kind.nlcntvar);
    for (int e = 0; e < run.kind.neqsets; ++e) used = used || run.model.use1.row(e)[v] != 0;
    mark = used ? 1 : 0;
  }
}

void compactlists() {
  ModelSpec& model = run.model;
  const auto compact = [](Array<int>& flags, int& count) {
    Array<int> list(flags.size());
    count = 0;
    for (std::size_t v = 1; v < flags.size(); ++v)
      if (flags[v] != 0) list[static_cast<std::size_t>(count++)] = static_cast<int>(v);
    flags = std::move(list);
  };
  compact(model.res1vars1, model.nres1vars1);
  compact(model.res1vars2, model.nres1vars2);
  compact(model.res1vars3, model.nres1vars3);
  compact(model.res2vars2, model.nres2vars2);
  compact(model.res2vars3, model.nres2vars3);
  compact(model.res3vars3, model.nres3vars3);
}

}  // namespace kdr
