// Writing an MDM file: the tables, the blocks (writeunit of data/unitreader.h) behind them, and last the magic.
#pragma once

#include <cstdio>

#include "driver/resultfile.h"

namespace kdr {

// Writes everything up to the blocks to a new file, from run.mdm, with zeros in place of the magic. Failure 5.
void writemdmtables(std::FILE* stream);
// Writes the magic and closes the file: from now on it is an MDM file. Failure 5.
void finishmdm(ResultFile& file);

}  // namespace kdr
