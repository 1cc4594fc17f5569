// One long file in the place of the three: it is sorted in memory, and each of its numeric variables goes to the
// highest level at which it is constant.
#pragma once

#include <string>
#include <vector>

namespace kdr {

// The type of raw data OTHER that the name's extension tells, or null.
[[nodiscard]] const char* typeofextension(const std::string& path);

// Reads the file (a type of raw data OTHER, told by its extension) with the columns of this name as IDs, and tells
// `raw`, run.mdm and, where it is empty, run.files.mdmfile what mkmdm needs. Writes a template by writetemplate: the
// one that does the same where the file is sorted already and no name had to be changed.
//
// A value that is one of the numbers `missing` counts as missing; the console tells how many there are of each
// variable.
//
// A variable that is constant within units but missing in some of them stays at level 1, since a row with a missing
// value would cost the unit. Names that are alike in 8 characters get a number at their end; the console tells the new
// ones. Stops with code 100 for a file of no known type, a column that is not there, or a file without a numeric
// variable that varies within level-2 units.
void takeonefile(const std::string& path, const std::string& level3, const std::string& level2,
                 const std::vector<double>& missing = {});

}  // namespace kdr
