// The residual files of a run: one for each level, with the residuals, the coefficients and their posterior variances,
// and chosen variables of the data.
#pragma once

#include <functional>
#include <string>

#include "data/unitreader.h"
#include "estimate/linear/recordunits.h"

namespace kdr {

// True when the run asks for a residual file.
[[nodiscard]] bool wantresidualfiles();

// Whether a file, of no matter what kind, is an SPSS file that this program wrote: of all its residual files, these
// alone begin as raw data that it reads.
[[nodiscard]] bool isownspss(const std::string& path);

// Writes the files of run.out.resfil1, resfil2 and resfil3 from a finished pass after variancetests. The level-1 file
// comes first, in a walk of its own through the file `working`, whose records lie as `layout` tells. A failed write
// is failure 5 and leaves none of the file.
void writeresidualfiles(Pass& pass, const WorkingFile& working, const RecordLayout& layout);

// Walks the working data file beside the store. Calls use(k, unit, fitted) for every level-2 unit that has records:
// k its level-3 unit, `unit` its block as the analysis had it, fitted[i] the fitted value of record i,
//   M gamma + z Z2 v + d Z1 u.
// For a run with one equation set.
void eachfittedunit(Pass& pass, const WorkingFile& working, const RecordLayout& layout,
                    const std::function<void(int k, const UnitBlock& unit, const double* fitted)>& use);

}  // namespace kdr
