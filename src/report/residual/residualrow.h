// A residual file under way and one of its rows.
#pragma once

#include <string>

#include "core/codes.h"
#include "data/mdm.h"
#include "driver/resultfile.h"
#include "report/residual/columns.h"

namespace kdr {

struct ResidualFile {
  ResidualForm form = ResidualForm::spss;
  std::string label;  // of the file, where the form has one: whose values these are
  ResidualColumns columns;
  int countwidth = 5;  // SYSTAT and SAS: columns of the number of members
  ResultFile out;
};

// One row. `values` has an entry for each column.
struct ResidualRow {
  Id id3{}, id2{};
  int count = 0;  // records or level-2 units of the unit
  const double* values = nullptr;

  [[nodiscard]] const Id& id(int which) const { return which == 0 ? id3 : id2; }
};

// Stands for a value that there is not, a least-squares residual above all.
inline constexpr double nosuchvalue = -99.0;
// What stands for it in a form: the same, in the Stata form its own missing value.
[[nodiscard]] inline double missingmark(ResidualForm form) {
  return form == ResidualForm::stata ? 0x1p1023 : nosuchvalue;
}

}  // namespace kdr
