// The MDM file: the one binary data file that every model run reads. It holds the merged three-level data set.
//
// Order of the file, little-endian and without any filler: the head; three name tables; the width of a file name and
// three file names; the grand means; the level-3 IDs; the level-3 matrix; one block for each level-2 unit
// (data/unitreader.h). The head settles the file's length, so a file of another length is refused.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string_view>

#include "core/names.h"

namespace kdr {

struct ResultFile;

inline constexpr std::string_view mdmmagic = "MXKDR3";  // the file's first bytes

// An ID of a level-2 or level-3 unit. `run.mdm.numericids` tells which of the two holds it.
struct Id {
  Name text;
  double number;
};

// True when the two are the same ID: texts without regard to case, numbers exactly.
[[nodiscard]] bool sameid(const Id& a, const Id& b);
// Order of two IDs: below 0, 0 or above 0.
[[nodiscard]] int compareids(const Id& a, const Id& b);
// Bytes of an ID in a file: 13 or 8.
[[nodiscard]] std::size_t idwidth();
// The bytes of an ID, idwidth() of them, as they stand in a file.
[[nodiscard]] const void* idbytes(const Id& id);
// Row k (from 0) of the level-3 ID table of run.mdm.
[[nodiscard]] Id level3id(int k);

// The head's fields behind the magic, in file order.
struct MdmHeader {
  float version;       // the writer stores 7.01
  int numl1var;        // variables of each level, the intercept not counted
  int numl2var;        //
  int numl3var;        //
  int numl1rec;        // level-1 records, the sum of nj over all blocks
  int numl2rec;        // level-2 blocks
  int numl3rec;        // rows of the level-3 table
  int l1missing;       // 1: the level-1 data were declared to hold missing values
  int timeofdeletion;  // 1: records with a missing value were deleted when the file was made
  int mdmtype;         // 0 to 3: the report's notation; absent at or below version 6.295
  int rawdattype;      // kind of raw data, negated when the IDs are numeric
  int maxnj;           // largest nj of any block
};

// Reads run.mdm.stream from its start up to and including the level-3 matrix into run.mdm, and derives ncol1, ncol2,
// ncol3 and maxbeta. Stops with code 100 and words of its own for a file that is no MDM file, too old, or damaged:
// every count is held against the file's length before it is used.
void readmdm();

// Writes everything up to the blocks to a new file, from run.mdm, with zeros in place of the magic. Failure 5.
void writemdmtables(std::FILE* stream);
// Writes the magic and closes the file: from now on it is an MDM file. Failure 5.
void finishmdm(ResultFile& file);

// "The mdm file ... is damaged: ..." and the stop with code 100.
[[noreturn]] void damagedmdm(const char* what);

}  // namespace kdr
