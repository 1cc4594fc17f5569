// The tables of the exploratory analysis.
#pragma once

#include "core/results.h"

namespace kdr {

void exploratorytables(const ExploratoryAnalysis& analysis);

}  // namespace kdr
