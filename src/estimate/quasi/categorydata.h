// The stacked working data of a multinomial or ordinal run: every record carries M working responses, and the pass
// folds D'WD with the M by M weight matrix W of the record, which is formed on the fly.
//
// A record of the working data file: indicators (M values), fitted probabilities (M) if the run has a level-1 residual
// file, the level-1 predictors of the model, centered, and the variables that this file shows. Only a run with such a
// file writes it anew in every macro iteration.
#pragma once

#include "estimate/linear/pass.h"
#include "estimate/linear/passplan.h"
#include "estimate/quasi/categories.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Begins the pass `first` by its plan, writes the working data file from the MDM file, and makes the pass' data pass
// over the first working data: the same linear predictor for every record.
[[nodiscard]] Failure preparecategoricaldata(const CategoryTable& table, MacroState& state, Pass& first,
                                             const PassPlan& plan);

// Takes the estimates of `pass` for state.previous, begins the pass `next` by its plan, and makes its data pass over
// the working data that follow from the estimates and from the random effects in `pass`. Fixed effects whose thresholds
// are out of order are reached in part only: state.shortened. In the first seven macro iterations a predictor beyond 30
// starts again from 2, those of an ordinal record together.
[[nodiscard]] Failure updatecategoricaldata(Pass& pass, MacroState& state, Pass& next, const PassPlan& plan);

}  // namespace kdr
