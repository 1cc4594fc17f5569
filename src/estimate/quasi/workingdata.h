// The working-data step of penalised quasi-likelihood: from the estimates of a pass, the working weight and the working
// dependent variable of every record, which the next pass takes for its data.
//
// Both are made as the data pass of the next pass needs them, and go into its cross-products at once. The working data
// file holds what they are made from: the level-2 blocks as the analysis has them. A record of the first pass has the
// variables of the MDM file. From the first step on it has
//   the outcome as observed, Z if the run has a level-1 residual file, the level-1 predictors of the model, the
//   variables that this file shows
// and only a run with such a file writes it anew in every step.
#pragma once

#include "core/failure.h"
#include "estimate/linear/passplan.h"
#include "estimate/quasi/family.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// The linear predictor at which working data are made.
enum class Predictor {
  conditional,  // with the random effects
  corrected,    // without, corrected for them: where the population average starts
  fixed         // without, of fixed effects that are those of the population
};

struct WorkingStep {
  bool first = false;   // after the identity pass: the fitted value is a mean
  bool capped = false;  // after the first pass on working data: Poisson means stay below the largest rate met
  Predictor predictor = Predictor::conditional;
};

// Takes the estimates of `pass` for state.previous, begins the pass `next` by its plan, and makes its data pass over
// the working data that follow from the estimates and from the random effects in `pass`. state.layout becomes that of
// the file. Fails for a logit beyond 60 in a macro iteration after the seventh, unless separation is known.
[[nodiscard]] Failure prepareworkingdata(Pass& pass, MacroState& state, const WorkingStep& step, Pass& next,
                                         const PassPlan& plan);

}  // namespace kdr
