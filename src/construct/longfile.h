// One long file in memory, column by column, with the units that its ID columns make; and the handing over of columns
// made of it to the construction of an MDM file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/names.h"
#include "data/mdm.h"

namespace kdr {

// The type of raw data OTHER that the name's extension tells, or null.
[[nodiscard]] const char* typeofextension(const std::string& path);

// A column of the file. One of numbers has `numbers`, one of texts has `codes` and `texts`.
struct LongColumn {
  std::string name;   // as the file has it
  std::string label;  // what the file says of it, or nothing
  bool text = false;
  std::string why;                 // where the file has the first text of a column that would be numeric without it
  std::vector<double> numbers;     // [record]; missingcode
  std::vector<int> codes;          // [record]: place in `texts`, -1 for an empty text
  std::vector<std::string> texts;  // in the order of the records
  ValueLabels labels;              // of numbers
  long long codedmissing = 0;      // numbers that count as missing since they were named so
};

// Opens the file: raw.level[0].vartable then has a row for each of its columns. Stops with code 100 for a file of no
// known type, and as the readers do.
void openlong(const std::string& path);
// Reads these rows of the table and closes the file. The numbers in `missing` count as missing values, but not in the
// rows of `ids`. Failure 1 for a file without records.
[[nodiscard]] std::vector<LongColumn> readlong(const std::vector<int>& rows, const std::vector<double>& missing,
                                               const std::vector<int>& ids);

// The units that a column of IDs makes.
struct UnitKeys {
  std::vector<int> ofrecord;       // [record]: its unit, from 0 in the order of the IDs; -1 without an ID
  std::vector<Id> ids;             // [unit]
  std::vector<std::string> whole;  // [unit]: its text as the file has it first; nothing for numbers
  bool numbered = false;           // the IDs are numbers in the place of texts
};
// Texts that differ by nothing but case are one ID when `foldcase`. With `numeric`, and where a text has more than 12
// characters or differs from another by nothing but case, the units are numbered from 1 in the order of their texts.
[[nodiscard]] UnitKeys unitkeys(const LongColumn& column, bool numeric, bool foldcase);
// Whether unitkeys would number the units of a column of texts for its own sake.
[[nodiscard]] bool needsnumbers(const LongColumn& column, bool foldcase);

// The records in the order of their units. Records without an ID, and those that `kept` leaves out (empty: none), are
// not among them.
struct LongUnits {
  int levels = 3;  // 2: level3 has nothing, and first3 is first2
  UnitKeys level3, level2;
  std::vector<std::uint32_t> order;         // places are indices into it
  std::vector<std::size_t> first2, first3;  // places where a unit begins
  bool sorted = true;                       // the file has this order

  // The units of the highest level.
  [[nodiscard]] const UnitKeys& outer() const { return levels == 3 ? level3 : level2; }
};
void sortunits(LongUnits& units, const std::vector<char>& kept);

// The highest level, as an index, at which a variable is constant and never missing. The console is told of one that
// varies within some few units, as slips of the data make it, and of one that only gaps keep at level 1.
[[nodiscard]] int levelof(const std::string& name, const LongUnits& units,
                          const std::function<double(std::size_t record)>& value);

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
