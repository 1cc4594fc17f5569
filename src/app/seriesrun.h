// A series of sub-runs as the run sequence sees it: multiple imputation, one process per data set,
// or plausible values, one pass per value. Without a series every call here does nothing.
//
// In the order of a sub-run:
//   clearseries    before the model is read
//   beginseries    once the report stands up to the model's summary
//   storesubrun    with the results of each pass; a data set's record reaches the disk when the process ends well
//   poolseries     at the end of the sub-run; does something after the last one
//   closeseries    from the stop sequence, with the exit code
#pragma once

#include "core/results.h"
#include "series/pooledresults.h"

namespace kdr {

// A first data set removes the store that another series left in this folder: should it fail before it makes its own,
// the data sets behind it find none.
void clearseries();

// First sub-run: begins the averaged report and a store. A later data set joins the store of its series; a store that
// isn't usable stops the run with one sentence and code 100. Failure 5.
void beginseries();
// The same for a series that is only to be averaged, by the model of its last data set. Its store must be there.
void resumeseries();

// Keeps the results of a pass as those of this sub-run. Those of a later pass take their place, those of a
// population-average pass join them; an identity pass and a heterogeneous stage leave nothing, and so do results
// without a likelihood. Where the series is one of an engine its results alone are kept, and those of the population
// average.
void storesubrun(const PassResults& results);

// The engine whose results the series is of has none: this data set counts as failed, which is said; with plausible
// values the run ends.
void enginemissing();

// True when no further sub-run follows this one.
[[nodiscard]] bool lastsubrun();

// The sub-run has ended. After the last one: closes its report and writes the averages, which become the run's open
// report; the store is removed. The result, for who goes on to work with the averages, is null unless a sub-run was
// usable.
const Pooled* poolseries();

// The stop hook of a multiple-imputation series. A data set that isn't the last is marked as finished when the code is
// 0 and poolseries was reached: a user can leave in the middle with that code. A last one that ends without having
// pooled pools the others and closes that report.
void closeseries(int code);

}  // namespace kdr
