// The heterogeneous stage: iterations with a taupi of its own for every level-3 unit.
#pragma once

#include "core/failure.h"
#include "estimate/linear/iterationstate.h"
#include "estimate/linear/pass.h"

namespace kdr {

struct HeterogeneousResults {
  PassResults stage;        // of its last iteration
  UnitTable<double> taupi;  // of every level-3 unit
  Array<double> mean;       // their mean, and that weighted by level-2 units
  Array<double> weightedmean;
};

// Fails when there are too few level-2 units for the stage.
[[nodiscard]] Failure checkheterogeneous(const Pass& pass);
// Prepares the stage from the repaired starting value: every level-3 unit begins with taupi.
void startheterogeneous(const Pass& pass, IterationState& state);
// Hands the results of the stage to the observer and leaves the mean weighted by level-2 units in pass.est.taupi.
[[nodiscard]] Failure heterogeneousresults(Pass& pass, IterationState& state);

}  // namespace kdr
