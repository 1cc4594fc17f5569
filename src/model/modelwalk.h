// Walks over the coefficients of run.model in the order of the fixed effects.
#pragma once

#include "driver/runrecord.h"

namespace kdr {

// A level-1 coefficient: set, place in the set, level-1 variable.
struct Coefficient1 {
  int e, c, v;
};
// A level-2 coefficient: its level-1 coefficient, place b in the set, slot s in the row, level-2 variable w.
struct Coefficient2 {
  Coefficient1 owner;
  int b, s, w;
};

// Filled slots of a row of terms.
[[nodiscard]] inline int filledslots(const int* row, int width) {
  int n = 0;
  while (n < width && row[n] != noslot) ++n;
  return n;
}

// True for a threshold of an ordinal run.
[[nodiscard]] inline bool isthreshold(int v) { return run.kind.ordinal && v > run.mdm.nvar1; }

// The first subscript digit of a row: 1 when its first term is not the intercept.
[[nodiscard]] inline int firstsubscript(const int* row) { return row[0] == 0 ? 0 : 1; }

template <class Visit>
void eachcoefficient1(Visit visit) {
  for (int e = 0; e < run.kind.neqsets; ++e) {
    int c = 0;
    for (int v = 0; v < run.mdm.ncol1; ++v)
      if (run.model.use1.row(e)[v] == 1) visit(Coefficient1{e, c++, v});
  }
}

template <class Visit>
void eachcoefficient2(Visit visit) {
  int set = -1, b = 0;
  eachcoefficient1([&](const Coefficient1& owner) {
    if (owner.e != set) b = 0;
    set = owner.e;
    const int* row = run.model.terms2.row(owner.e, owner.c);
    for (int s = 0; s < run.mdm.ncol2 && row[s] != noslot; ++s) visit(Coefficient2{owner, b++, s, row[s]});
  });
}

// visit(coefficient, slot, level-3 variable) for every fixed effect.
template <class Visit>
void eachfixedeffect(Visit visit) {
  eachcoefficient2([&](const Coefficient2& coefficient) {
    const int* row = run.model.terms3.row(coefficient.owner.e, coefficient.b);
    for (int s = 0; s < run.mdm.ncol3 && row[s] != noslot; ++s) visit(coefficient, s, row[s]);
  });
}

}  // namespace kdr
