// The heterogeneous stage: iterations with a taupi of its own for every level-3 unit.
#pragma once

#include "estimate/linear/iteration.h"
#include "estimate/linear/pass.h"

namespace kdr {

inline constexpr const char* heterogeneousfile = "hettau.dat";

// Stops with code 100 when there are too few level-2 units for the stage.
void checkheterogeneous(const Pass& pass);
// Prepares the stage from the repaired starting value: every level-3 unit begins with taupi.
void startheterogeneous(IterationState& state);
// Prints the results of the stage: those of its last iteration, heterogeneousfile with the lower triangle of each
// unit's taupi, their plain and weighted means, the fixed effects. Leaves the mean weighted by level-2 units in
// run.est.taupi.
void heterogeneousresults(Pass& pass, IterationState& state);

}  // namespace kdr
