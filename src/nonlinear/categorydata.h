// The stacked working data of a multinomial or ordinal run: every record carries M working responses, and the pass
// folds D'WD with the M by M weight matrix W of the record, which is formed on the fly.
//
// A record of the working data file: z, eta, indicator, fitted probability (M values each), the level-1 predictors of
// the model, centered, and the variables that a residual file shows.
#pragma once

#include <cstdio>

#include "linear/pass.h"
#include "linear/unitsource.h"
#include "nonlinear/categories.h"
#include "nonlinear/macrostate.h"

namespace kdr {

// Writes the first working data file from the MDM file: the same linear predictor for every record.
void preparecategoricaldata(const CategoryTable& table, MacroState& state);

// Rewrites the working data file from run.est and the random effects in `pass`, and takes run.est for state.previous.
// In the first seven macro iterations a predictor beyond 30 starts again from 2.
void updatecategoricaldata(Pass& pass, MacroState& state);

// The unit source over the working data file.
struct CategoryUnits {
  const RecordLayout* layout = nullptr;
  UnitReader reader;
  UnitBlock unit;
  Id current{};
  int k = -1;
  std::size_t records = 0;
  std::vector<int> row;           // [npi] response of each column of D, -1: all of them
  Array<double> W, Wz, x, total;  // M squared, [M], [npi], [M]: W times a vector of ones
};
void startcategories(CategoryUnits& units, const RecordLayout& layout);
[[nodiscard]] bool nextunit(CategoryUnits& units, UnitProducts& products);

}  // namespace kdr
