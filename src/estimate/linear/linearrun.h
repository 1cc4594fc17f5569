// A linear fit: one pass over the records of a data set.
#pragma once

#include "core/failure.h"
#include "core/results.h"
#include "data/unitreader.h"
#include "estimate/linear/pass.h"

namespace kdr {

struct LinearFit {
  Pass pass;            // finished, for residuals and graphs
  WorkingFile working;  // the records as the analysis had them, where they are wanted
  PassResults results;
};

// Fits the linear model of the analysis. The fit has to stay where it is as long as the analysis.
[[nodiscard]] Failure fitlinear(const Analysis& analysis, LinearFit& fit);

}  // namespace kdr
