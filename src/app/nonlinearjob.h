// A run with another outcome than a normal one, from the MDM file to the last result file.
#pragma once

#include "core/observer.h"
#include "core/results.h"
#include "estimate/analysis.h"
#include "estimate/quasi/categories.h"

namespace kdr {

// The categories of the outcome, and their labels into the run record.
[[nodiscard]] CategoryTable categoriesofrun(const Analysis& analysis);

// Fits the model of the run record; the observer of the analysis writes what the run asks for while the passes stand. A
// run with categories has their table. Hands back the results of the last unit-specific pass.
[[nodiscard]] PassResults nonlinearjob(const Analysis& analysis, const CategoryTable& table);

// What a chain of passes tells and writes: its part of the observer of the run.
void observechain(Observer& observer);

// The closing list of the variance files in the report.
void listnonlinearfiles();

}  // namespace kdr
