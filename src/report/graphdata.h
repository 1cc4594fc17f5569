// The graph data file: fixed effects, the distribution of every predictor, and the residuals, fitted values and
// posterior variances of every unit, in one binary file.
#pragma once

#include "report/residual/residualfiles.h"

namespace kdr {

// Writes the file of run.files.graphgammas. A non-linear run hands in the fixed effects of its `phases`, 3 ngamma
// values, which stand before those of the source. The statistics of the predictors come from the MDM file, which is
// opened once more. A failed write is failure 5 and leaves none of the file.
void writegraphdata(const ResidualSource& of, const Array<double>& phases = {});

}  // namespace kdr
