// One long file in memory, column by column, with the units that its ID columns make; and the handing over of columns
// made of it to the construction of an MDM file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/names.h"
#include "data/mdm.h"
#include "formula/longcolumn.h"
#include "formula/units.h"

namespace kdr {

// The type of raw data OTHER that the name's extension tells, or null.
[[nodiscard]] const char* typeofextension(const std::string& path);

// Opens the file: raw.level[0].vartable then has a row for each of its columns. Stops with code 100 for a file of no
// known type, and as the readers do.
void openlong(const std::string& path);
// Reads these rows of the table and closes the file. The numbers in `missing` count as missing values, but not in the
// rows of `ids`. Failure 1 for a file without records.
[[nodiscard]] std::vector<LongColumn> readlong(const std::vector<int>& rows, const std::vector<double>& missing,
                                               const std::vector<int>& ids);

// Texts that differ by nothing but case are one ID when `foldcase`. With `numeric`, and where a text has more than 12
// characters or differs from another by nothing but case, the units are numbered from 1 in the order of their texts.
[[nodiscard]] UnitKeys unitkeys(const LongColumn& column, bool numeric, bool foldcase);
// Whether unitkeys would number the units of a column of texts for its own sake.
[[nodiscard]] bool needsnumbers(const LongColumn& column, bool foldcase);

// Tells the console of such a text among IDs, where it makes a unit.
void tellstrayid(const LongColumn& column);

// A variable that goes into the MDM file.
struct MadeColumn {
  Name name;
  std::string fullname, label;
  ValueLabels labels;
  std::function<double(std::size_t record)> value;
};

// The first 8 characters of a name, with a number at their end where it is among those `taken`, which it joins then.
[[nodiscard]] Name newname(const std::string& fullname, std::vector<std::string>& taken);

// Hands units and the columns of each level (index 0 to 2) to mkmdm, in the place of a raw file, and tells run.mdm the
// names. The values are asked for while mkmdm runs. Whole names and labels go into the MDM file when `names`, and
// wherever it would hold less than the columns have; whole IDs where the units are numbered.
void servecolumns(LongUnits units, std::vector<MadeColumn> (&columns)[3], bool names);
// Frees what servecolumns was given.
void forgetcolumns();

}  // namespace kdr
