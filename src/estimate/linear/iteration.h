// The iterations of a stage: EM steps, an accelerated step every `accel` iterations, the convergence rule, the
// questions at the limit and at an interrupt, and the results that hang on the last iteration.
#pragma once

#include "core/failure.h"
#include "estimate/linear/iterationstate.h"

namespace kdr {

// Prepares the state for the stages of a pass.
void startiterations(const Pass& pass, IterationState& state);

// Runs one stage of at most state.limit iterations. The observer hears of each, and is asked at the limit and for an
// interrupt.
[[nodiscard]] Failure iterate(Pass& pass, IterationState& state);

}  // namespace kdr
