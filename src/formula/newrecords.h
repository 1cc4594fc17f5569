// The records of another table, as the columns of a plan whose design stands.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "formula/plan.h"

namespace kdr {

// Columns by the names that the formula and its options have for them.
using NamedColumns = std::map<std::string, LongColumn>;

// The columns that a table has to have, and those that it may have: trials or exposure, and what tells its units.
struct NeededColumns {
  std::vector<std::string> needed, optional;
};
[[nodiscard]] NeededColumns neededcolumns(const FormulaPlan& plan);

// A column of another table in the form of that of the fit: numbers or texts, and names for numbers. `lost` is told of
// values that have no place in it, which are missing then.
[[nodiscard]] LongColumn alike(LongColumn column, const LongColumn& fitted, const Tell& lost);

// Values are missingcode where a record has none.
struct NewRecords {
  std::size_t n = 0;
  std::vector<std::vector<double>> pieces[3];  // [piece][record]: of the design
  std::vector<double> offset;                  // of a normal outcome; empty: none
  std::vector<double> counts;                  // exposure; empty: none, or not known
  // [record] IDs of its units as the data have them, empty where missing. No entries: the table does not tell them.
  std::vector<std::string> level2, level3;
};
// Of columns in the form of the fit, which has to stand. Functions of whole columns take what they took there, units of
// the fit keep their means. `lost` is told of levels and values that there are none of.
[[nodiscard]] NewRecords newrecords(const FormulaPlan& plan, const NamedColumns& columns, const Tell& lost);

}  // namespace kdr
