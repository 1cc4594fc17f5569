// The data pass: reads every level-2 block once and turns it into cross-products.
#pragma once

#include "linear/pass.h"

namespace kdr {

// Reads all blocks of run.mdm.stream and fills the sums and the store of `pass`; sets run.mdm.nunits1 to the number of
// records that remain after run-time deletion and reports a change of it once. Raises 100 for a known variance that is
// not positive.
void datapass(Pass& pass);

}  // namespace kdr
