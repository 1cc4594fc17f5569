// The data pass: folds the level-2 units of a source, one after the other, into the sums and the store of a pass.
#pragma once

#include "linear/pass.h"
#include "linear/unitsource.h"

namespace kdr {

// Takes all units of `next` and fills the sums and the store of `pass`, whose design stands; sets run.mdm.nunits1 to
// the number of their records and the constant of the likelihood. The store keeps identifiers and level-2 rows as told.
void datapass(Pass& pass, const UnitSource& next, bool withid, bool withlevel2);

}  // namespace kdr
