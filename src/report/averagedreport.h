// The report of a series' averages.
#pragma once

#include <span>
#include <string>

#include "kernel/array.h"
#include "report/degreesoffreedom.h"
#include "report/pooledresults.h"

namespace kdr {

// What the tables of the averages take from the model of the sub-run that writes them.
struct AveragedFrame {
  FixedDegrees degrees;     // complete-data degrees of freedom
  Array<int> nterms2;       // [q], level-2 terms random at level 3, and
  Array<int> nfixedterms2;  // [q], fixed there, of each coefficient random at level 2
  Array<int> nterms3;       // [r], level-3 terms of each coefficient random at level 3
  bool sigma2fixed = false;
};

// Degrees of freedom of the averaged variance tests.
struct AveragedDegrees {
  Array<long long> df2, df3;  // [q], [r]
};
[[nodiscard]] AveragedDegrees averageddegrees(const Pooled& pooled, const AveragedFrame& frame);

// The stem of the sub-runs' numbered reports with ".avg" or "_avg.html"; empty when the reports go to standard output,
// which the averages follow there.
[[nodiscard]] std::string averagedreportname();

// Begins the averaged report with what the sub-run's report holds so far, under its own name in the line "Output file
// name". The sub-run's report goes on where it stood. Failure 5.
void startaveragedreport();

// Opens the averaged report as the run's report, behind what startaveragedreport wrote; averages of an earlier attempt
// are cut away. The report that was open must have been closed.
void openaveragedreport();

// Writes the averages to the report; `failed` are the indices of the data sets that failed. Without a usable sub-run
// `pooled` is null.
void averagedreport(const Pooled* pooled, const AveragedFrame& frame, std::span<const int> failed);

}  // namespace kdr
