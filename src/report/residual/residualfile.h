// One residual file: opened with its head, filled row by row, closed with its end. The form decides how each is
// written.
#pragma once

#include "core/codes.h"
#include "data/mdm.h"
#include "driver/resultfile.h"
#include "report/residual/columns.h"

namespace kdr {

struct ResidualFile {
  ResidualForm form = ResidualForm::spss;
  ResidualColumns columns;
  int countwidth = 5;  // SYSTAT and SAS: columns of the number of members
  ResultFile out;
};

// One row. `values` has an entry for each column.
struct ResidualRow {
  Id id3{}, id2{};
  int count = 0;  // records or level-2 units of the unit
  const double* values = nullptr;
};

// Calls use(id) for each ID of a row in the order of the columns.
template <class Use>
void eachid(const ResidualColumns& columns, const ResidualRow& row, Use use) {
  if (columns.withid3) use(row.id3);
  if (columns.level < 3) use(row.id2);
}

// Stands for a value that there is not, a least-squares residual above all.
inline constexpr double nosuchvalue = -99.0;
// What stands for it in a form: the same, in the Stata form its own missing value.
[[nodiscard]] double missingmark(ResidualForm form);

// Opens the file of run.out.resfiltype at `path` for the columns of `level` and writes its head. `cases` is the number
// of rows to come, `largestcount` the largest `count` among them.
void openresidualfile(ResidualFile& file, int level, const std::string& path, int cases, int largestcount);
// Failure 5 when it cannot be written; the file is then removed.
void writeresidualrow(ResidualFile& file, const ResidualRow& row);
void closeresidualfile(ResidualFile& file);

}  // namespace kdr
