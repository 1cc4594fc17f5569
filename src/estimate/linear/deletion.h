// Deletion of level-1 records at analysis time.
#pragma once

#include "core/model.h"
#include "data/unitreader.h"

namespace kdr {

// Marks every variable of the model as one without which a level-1 record cannot be used, when records with missing
// values are still in the file.
void markdeletion(Model& model, const MdmData& mdm);

// True when the record of an MDM block lacks a value in a variable marked in the model's delete1.
[[nodiscard]] bool lacksvalue(const Model& model, const double* record);

// Removes from the unit the records that lack such a value, from the last to the first; the others keep their order.
void deleterecords(const Model& model, UnitBlock& unit);

}  // namespace kdr
