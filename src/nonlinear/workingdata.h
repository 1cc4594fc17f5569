// The working-data step of penalised quasi-likelihood: from the estimates of a pass, the working weight and the working
// dependent variable of every record, which the next pass takes for its data.
//
// The working data file holds the level-2 blocks as the analysis has them. A record of the first pass has the variables
// of the MDM file. From the first step on it has
//   NONLINWT, the outcome as observed, Z, the level-1 predictors of the model, the variables that a residual file shows
#pragma once

#include "nonlinear/family.h"
#include "nonlinear/macrostate.h"

namespace kdr {

struct WorkingStep {
  bool first = false;     // after the identity pass: the fitted value is a mean, the outcome is checked
  bool capped = false;    // after the first pass on working data: Poisson means stay below the largest rate met
  bool marginal = false;  // for the population-average pass: no random effects, predictor corrected for them
};

// Rewrites the working data file from run.est and the random effects in `pass`, and takes run.est for state.previous.
// state.layout becomes that of the file. Raises 100 for an outcome out of range and for a logit beyond 60 in a macro
// iteration after the seventh, 5 when the file cannot be written.
void prepareworkingdata(Pass& pass, MacroState& state, const WorkingStep& step);

// The outcome type of the run.
[[nodiscard]] Family familyof();

}  // namespace kdr
