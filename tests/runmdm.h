// The MDM file of the run record, as a job reads it.
#pragma once

#include "data/mdm.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

// Reads run.mdm.stream; a failure is told and ends the process.
inline void readrunmdm() {
  run.mdm.path = run.files.mdmfile;
  stopif(readmdm(run.mdm));
}

}  // namespace kdr
