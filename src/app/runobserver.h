// What an estimation tells and asks, on the console and in the report.
#pragma once

#include "core/observer.h"
#include "estimate/analysis.h"

namespace kdr {

inline constexpr const char* heterogeneousfile = "hettau.dat";

// The observer of the program's one run. It keeps the last log-likelihoods and the interrupt key while a stage runs.
[[nodiscard]] Observer runobserver();

// What the run record asks of a fit. `start`: starting values from a file, or null.
[[nodiscard]] Analysis analysisofrun(const Observer& observer, const Estimates* start);

}  // namespace kdr
