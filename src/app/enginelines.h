// What the maximum-likelihood engines tell, on the console, in the report, the results document and the variance files.
#pragma once

#include "estimate/likelihood/engines.h"

namespace kdr {

// A line or a mark of the console for an engine on its way.
void tellengine(Engine engine, const EngineEvent& event);
// An engine at its end: its tables and files, or why there are none.
void tellenginestage(const EngineStage& stage);

}  // namespace kdr
