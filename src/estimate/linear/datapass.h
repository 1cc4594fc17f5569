// The data pass: folds the level-2 units of a source, one after the other, into the sums and the store of a pass.
#pragma once

#include "estimate/linear/pass.h"
#include "estimate/linear/unitsource.h"

namespace kdr {

// A data pass at work. Its caller fills `unit`, whose arrays have their sizes, and folds it, unit after unit in the
// order of the data.
struct DataFold {
  Pass& pass;
  UnitProducts unit;
  Array<double> w2;  // [nbeta] the numbers in W2: column b of B is w2[b] times column owner2[b] of A
  Array<double> Z1Z1, inverse;
  std::size_t units = 0, records = 0;
  bool givenup = false;  // by the observer
};

// Begins the sums and the store of `pass`, whose design stands. The store keeps identifiers and level-2 rows for whom
// they are wanted.
[[nodiscard]] DataFold startfold(Pass& pass);
// Takes fold.unit into the pass.
void foldunit(DataFold& fold);
// Ends the pass: sets its number of records and the constant of its likelihood.
[[nodiscard]] Failure finishfold(DataFold& fold);

// All of it, over the units of `next`. Whether these ended before their time is for the caller to ask.
[[nodiscard]] Failure datapass(Pass& pass, const UnitSource& next);

}  // namespace kdr
