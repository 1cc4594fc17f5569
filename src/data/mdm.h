// The MDM file: the one binary data file that every model run reads. It holds the merged three-level data set.
//
// Order of the file, little-endian and without any filler: the head; three name tables; the width of a file name and
// three file names; the grand means; the level-3 IDs; the level-3 matrix; one block for each level-2 unit
// (data/unitreader.h); and, where there is more to tell, the section of long names (data/longtexts.h). The head settles
// where the blocks end, so a file with anything else behind them is refused.
#pragma once

#include <cstddef>
#include <string_view>

#include "core/failure.h"
#include "core/names.h"
#include "data/mdmdata.h"

namespace kdr {

inline constexpr std::string_view mdmmagic = "MXKDR3";  // the file's first bytes

// True when the two are the same ID: texts without regard to case, numbers exactly.
[[nodiscard]] bool sameid(const Id& a, const Id& b, bool numeric);
// Order of two IDs: below 0, 0 or above 0.
[[nodiscard]] int compareids(const Id& a, const Id& b, bool numeric);
// Bytes of an ID in a file: 13 or 8.
[[nodiscard]] std::size_t idwidth(bool numeric);
// The bytes of an ID, idwidth() of them, as they stand in a file.
[[nodiscard]] const void* idbytes(const Id& id, bool numeric);
// Row k (from 0) of the level-3 ID table.
[[nodiscard]] Id level3id(const MdmData& mdm, int k);

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
  int mdmtype;         // 0 to 4: what the levels mean; absent at or below version 6.295
  int rawdattype;      // kind of raw data, negated when the IDs are numeric
  int maxnj;           // largest nj of any block
};

// Reads mdm.stream, whose name is mdm.path, from its start up to and including the level-3 matrix into `mdm`, and
// derives ncol1, ncol2, ncol3 and maxbeta. Fails with words of its own for a file that is no MDM file (notmdmwords),
// too old, or damaged: every count is held against the file's length before it is used.
[[nodiscard]] Failure readmdm(MdmData& mdm);
inline constexpr const char* notmdmwords = "Not a valid mdm file.\n";

// "The mdm file ... is damaged: ...".
[[nodiscard]] Failure damagedmdm(const MdmData& mdm, const char* what);

}  // namespace kdr
