// Deletion of level-1 records at analysis time.
#pragma once

#include "data/unitreader.h"

namespace kdr {

// Removes from the unit the records that lack a value in a variable marked in run.model.delete1, from the last to the
// first; the others keep their order.
void deleterecords(UnitBlock& unit);

}  // namespace kdr
