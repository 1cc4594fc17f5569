// One long file in the place of the three: it is sorted in memory, and each of its numeric variables goes to the
// highest level at which it is constant.
#pragma once

#include <string>
#include <vector>

#include "construct/longfile.h"

namespace kdr {

struct OneFileJob {
  std::string path;                 // of a file of raw data OTHER, whose type the extension tells
  std::string level3, level2;       // names of the ID columns; without level3 the data have two levels
  std::vector<std::string> level1;  // variables that stay at level 1 though they are constant within units
  std::vector<double> missing;      // values that count as missing; the console tells how many each variable has
  bool factors = false;             // columns of names become columns of 0 and 1
};

// Reads the file and tells `raw`, run.mdm and, where it is empty, run.files.mdmfile what mkmdm needs. Writes a template
// by writetemplate: the one that does the same where the file is sorted already, no ID had to be numbered and no name
// to be changed.
//
// A variable that is constant within units but missing in some of them stays at level 1, since a row with a missing
// value would cost the unit. Names that are alike in 8 characters get a number at their end; the console tells the new
// ones. Where a text ID of a level has more than 12 characters, all IDs of that level are numbered in the order of the
// texts. Stops with code 100 for a file of no known type, a column that is not there, a file without a numeric variable
// at level 1, or a key table that would take the place of another file.
void takeonefile(const OneFileJob& job);

// Writes the key table of the IDs that takeonefile has numbered, if any, beside the MDM file: `level,number,id`, as
// delimited text. It is for the reader; nothing reads it back. Failure 5.
void writekeys();

}  // namespace kdr
