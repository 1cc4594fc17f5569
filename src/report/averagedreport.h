// The report of a series' averages.
#pragma once

#include <span>

#include "series/pooledresults.h"

namespace kdr {

// Begins the averaged report with what the sub-run's report holds so far, under its own name in the line "Output file
// name". The sub-run's report goes on where it stood. Failure 5.
void startaveragedreport();

// Opens the averaged report as the run's report, behind what startaveragedreport wrote; averages of an earlier attempt
// are cut away. The report that was open must have been closed.
void openaveragedreport();

// Writes the averages to the report; `failed` are the indices of the data sets that failed, `unconverged` of those that
// have not converged, which marks the run as one that has not. Without a usable sub-run `pooled` is null.
void averagedreport(const Pooled* pooled, std::span<const int> failed, std::span<const int> unconverged);

}  // namespace kdr
