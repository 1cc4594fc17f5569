// The iterations of a stage: EM steps, an accelerated step every `accel` iterations, the convergence rule, the
// questions at the limit and at the interrupt key, and the results that hang on the last iteration.
#pragma once

#include "kernel/array.h"
#include "linear/aitken.h"
#include "linear/emstep.h"
#include "linear/fisher.h"
#include "linear/pass.h"

namespace kdr {

// State of the loop that outlives a stage.
struct IterationState {
  int hetstate = 1;         // 1 heterogeneous stage, 2 ordinary stage
  int limit = 0;            // iterations of the stage
  int fisherfailures = 0;   // failed accelerated steps of the whole call; from 4 on Aitken steps are taken
  Likelihood likelihood{};  // at the end of the last two iterations
  FisherWork fisher;
  TauHistory history;
  double s1 = 0.0, s2 = 0.0;  // sigma2 one and two iterations back
  Array<double> hettaupi;     // a taupi per level-3 unit, heterogeneous stage only
  int nrel2 = 0, nrel3 = 0;   // units that entered the reliabilities
  Array<double> rel2, rel3;   // reliabilities of the random coefficients
};

// Prepares the state for a pass.
void startiterations(const Pass& pass, IterationState& state);

// Runs one stage of at most state.limit iterations and prints its results when it ends.
void iterate(Pass& pass, IterationState& state);

// The results of an iteration: information, sigma2, tau tables, correlations, reliabilities.
void iterationresults(Pass& pass, IterationState& state, int iteration);

}  // namespace kdr
