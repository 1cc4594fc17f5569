// The residual files of a run: one for each level, with the residuals, the coefficients and their posterior variances,
// and chosen variables of the data.
#pragma once

#include <functional>
#include <string>

#include "data/unitreader.h"
#include "estimate/linear/recordunits.h"
#include "estimate/linear/unitresults.h"

namespace kdr {

// True when the run asks for a residual file.
[[nodiscard]] bool wantresidualfiles();

// Whether a file, of no matter what kind, is an SPSS file that this program wrote: of all its residual files, these
// alone begin as raw data that it reads.
[[nodiscard]] bool isownspss(const std::string& path);

// Whose values the files have: those of a finished pass after variancetests, or of `engine`, with which nothing of the
// pass is used but its design and the numbers of units.
struct ResidualSource {
  Pass& pass;
  const WorkingFile& working;  // the records as the analysis had them, in the `layout`
  const RecordLayout& layout;
  std::string phase;                      // of the results document
  std::string label;                      // of the forms that have one; may be empty
  const FittedEffects* engine = nullptr;  // null: the pass
  const Array<double>* counts = nullptr;  // trials or exposure of each record; null or empty: 1
};

// Writes the files of run.out.resfil1, resfil2 and resfil3. The level-1 file comes first, in a walk of its own through
// the file of the records. A failed write is failure 5 and leaves none of the file.
void writeresidualfiles(const ResidualSource& of);

// The walk through all level-2 units with records, their values in `results`: begin(k) before the units of level-3 unit
// k, use(k, unit) for each of them, `unit` its block as the analysis had it.
void eachunit(const ResidualSource& of, double missing, UnitResults& results, const std::function<void(int k)>& begin,
              const std::function<void(int k, const UnitBlock& unit)>& use, const std::function<void(int k)>& end);

// Calls use(k, unit, fitted) likewise: fitted[i] is the fitted value of record i,
//   M gamma + z Z2 v + d Z1 u.
// For a run with one equation set.
void eachfittedunit(const ResidualSource& of,
                    const std::function<void(int k, const UnitBlock& unit, const double* fitted)>& use);

}  // namespace kdr
