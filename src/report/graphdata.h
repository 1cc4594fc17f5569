// The graph data file: fixed effects, the distribution of every predictor, and the residuals, fitted values and
// posterior variances of every unit, in one binary file.
#pragma once

#include "estimate/linear/recordunits.h"

namespace kdr {

// Writes the file of run.files.graphgammas from a finished pass. A non-linear run hands in the fixed effects of its
// `phases`, 3 ngamma values, which stand before those of the pass. The statistics of the predictors come from the MDM
// file, which is opened once more. A failed write is failure 5 and leaves none of the file.
void writegraphdata(Pass& pass, const WorkingFile& working, const RecordLayout& layout,
                    const Array<double>& phases = {});

}  // namespace kdr
