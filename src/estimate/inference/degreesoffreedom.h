// Approximate degrees of freedom of the fixed effects.
#pragma once

#include "core/modelwalk.h"
#include "core/results.h"

namespace kdr {

// From the rows of the model and the unit counts. The arrays have an entry for each effect of the complete model, those
// that the constraints left first.
[[nodiscard]] FixedDegrees degreesoffreedom(const ModelRows& rows, const UnitCounts& counts);

}  // namespace kdr
