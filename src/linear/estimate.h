// The estimation driver: the hub of the system.
#pragma once

namespace kdr {

// Estimates the model in run.model on the open MDM file and reports the results. Reads and writes `run`; returns when
// the pass is over. Numerical failures end the run by the numbered failures of driver/failures.h.
void estimate();

}  // namespace kdr
