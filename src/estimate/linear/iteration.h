// The iterations of a stage: EM steps, an accelerated step every `accel` iterations, the convergence rule, the
// questions at the limit and at an interrupt, and the results that hang on the last iteration.
#pragma once

#include "estimate/linear/aitken.h"
#include "estimate/linear/emstep.h"
#include "estimate/linear/fisher.h"
#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// State of the loop that outlives a stage.
struct IterationState {
  int hetstate = 2;        // 1 heterogeneous stage, 2 ordinary stage
  int limit = 0;           // iterations of the stage
  int iteration = 0;       // the last one
  int fisherfailures = 0;  // failed accelerated steps of the run; from 4 on Aitken steps are taken
  bool searching = false;  // passes on working data do not stop before a search for their maximum
  Likelihood likelihood{missingcode, missingcode};  // at the end of the last two iterations
  FisherWork fisher;
  TauHistory history;
  double s1 = 0.0, s2 = 0.0;   // sigma2 one and two iterations back
  UnitTable<double> hettaupi;  // a taupi per level-3 unit, heterogeneous stage only
  bool stepped = false;        // a Fisher step lies between the last log-likelihood and the next
  bool confirming = false;     // the rule was met at an accelerated step: the next iteration is a plain one
  bool converged = false, atlimit = false, keyboardstop = false;  // why the stage ended
  int nextsearch = 0;  // the iteration that begins with a search for a maximum at the edge
  Ending ending = Ending::converged;

  [[nodiscard]] bool stopped() const { return converged || atlimit || keyboardstop; }
};

// Prepares the state for the stages of a pass.
void startiterations(const Pass& pass, IterationState& state);

// Runs one stage of at most state.limit iterations. The observer hears of each, and is asked at the limit and for an
// interrupt.
[[nodiscard]] Failure iterate(Pass& pass, IterationState& state);

}  // namespace kdr
