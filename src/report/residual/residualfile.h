// One residual file: opened with its head, filled row by row, closed with its end. The form decides how each is
// written.
#pragma once

#include <string>

#include "core/codes.h"
#include "report/residual/residualrow.h"

namespace kdr {

// Opens the file of run.out.resfiltype at `path` for the columns of `level` and writes its head. `cases` is the number
// of rows to come, `largestcount` the largest `count` among them.
void openresidualfile(ResidualFile& file, int level, const std::string& path, int cases, int largestcount);
// Failure 5 when it cannot be written; the file is then removed.
void writeresidualrow(ResidualFile& file, const ResidualRow& row);
void closeresidualfile(ResidualFile& file);

}  // namespace kdr
