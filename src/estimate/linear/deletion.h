// Deletion of level-1 records at analysis time.
#pragma once

#include "data/unitreader.h"

namespace kdr {

// True when the record of an MDM block lacks a value in a variable marked in run.model.delete1.
[[nodiscard]] bool lacksvalue(const double* record);

// Removes from the unit the records that lack such a value, from the last to the first; the others keep their order.
void deleterecords(UnitBlock& unit);

}  // namespace kdr
