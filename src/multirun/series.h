// A series of sub-runs as the run sequence and the estimation see it: multiple imputation, one process per data set,
// or plausible values, one pass per value. Without a series every call here does nothing.
//
// In the order of a sub-run:
//   beginseries       once the report stands up to the model's summary
//   setseriesframe    at the top of each pass of the estimation
//   storesubrun       at the end of the sub-run; a data set's record reaches the disk when the process ends well
//   poolseries        after it
//   closeseries       from the stop sequence, with the exit code
#pragma once

#include "multirun/averagedreport.h"
#include "multirun/pooling.h"
#include "multirun/subrun.h"

namespace kdr {

// The shape of this run's records, from the complete model.
[[nodiscard]] SubrunShape seriesshape();

// First sub-run: begins the averaged report and a store. A later data set joins the store of its series; a store that
// isn't usable stops the run with one sentence and code 100. Failure 5.
void beginseries();

// Keeps what the averages' tables take from a pass: its degrees of freedom of the fixed effects, and the model's terms.
void setseriesframe(const FixedDegrees& degrees);

// Keeps the results of this sub-run. The record must have the shape of seriesshape().
void storesubrun(SubrunRecord record);

// True when no further sub-run follows this one.
[[nodiscard]] bool lastsubrun();

// After the last sub-run: closes its report and writes the averages, which become the run's open report; the store is
// removed. The result, for who goes on to work with the averages, is null unless a sub-run was usable.
const Pooled* poolseries();

// The stop hook of a multiple-imputation series. A data set that isn't the last is marked as finished when the code is
// 0 and its results are there. A last one that ends without having pooled pools the others and closes that report.
void closeseries(int code);

}  // namespace kdr
