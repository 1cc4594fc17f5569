// Approximate degrees of freedom of the fixed effects.
#pragma once

#include "kernel/array.h"

namespace kdr {

// One entry for each fixed effect that the constraints left, in order; the arrays have the full number of entries.
struct FixedDegrees {
  Array<int> df;
  Array<char> rough;  // 1: the p-value is a rough approximation
};

// Fills `degrees` from the model, the unit counts in run.mdm, and run.model.coef.ntaupi and ntaubeta.
// Failure 3.
void degreesoffreedom(FixedDegrees& degrees);

}  // namespace kdr
