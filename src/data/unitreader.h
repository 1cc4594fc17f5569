// The level-2 blocks, one for each unit, in order: nj, the unit means, the records row by row, the level-3 ID, the
// level-2 ID, the level-2 values. The working copies that a run makes for itself have the same block without the means.
#pragma once

#include <cstddef>
#include <cstdio>
#include <utility>

#include "core/failure.h"
#include "core/observer.h"
#include "data/mdm.h"
#include "data/mdmdata.h"
#include "data/scratch.h"
#include "kernel/array.h"

namespace kdr {

// One level-2 unit. The arrays are at least as long as told; readunit makes them so on its first call.
struct UnitBlock {
  int nj = 0;             // level-1 records
  Array<double> means;    // nvar1: sum of the non-missing values over nj
  Array<double> records;  // maxnj rows of nvar1; the first nj are in use
  Array<double> level2;   // nvar2
  Id id3{}, id2{};        // the level-3 unit that it lies in, and its own ID
};

// A walk over the blocks of one file, through a buffer of its own.
struct UnitReader {
  const MdmData* mdm = nullptr;
  const Observer* observer = nullptr;  // may be null; asked whether to give up between reads
  Failure failure;                     // the first thing that went wrong: nothing more is delivered
  std::FILE* stream = nullptr;
  int nvar1 = 0, nvar2 = 0;
  bool withmeans = false;
  Array<char> buffer;           // file bytes start .. start + have
  long long end = 0;            // file position behind the last block; 0: that of the file's end
  long long start = 0;          // file position of the buffer's first byte
  std::size_t have = 0;         // bytes in the buffer
  std::size_t at = 0;           // next byte
  bool tallied = false;         // the blocks of the MDM file are held against its head
  int units = 0;                // blocks that readunit has delivered
  long long records = 0;        // their level-1 records
  int group = -1;               // row of the level-3 table that the last of them belongs to
  long long tallyposition = 0;  // where readunit left off
};

// Starts a walk at file position `offset` of a file with units of `mdm`. `withmeans` is true for an MDM file, false for
// a working copy. What has been written to the stream so far reaches the file first; failure 5 if it cannot. Between
// startunits and the last readunit nothing may be written to the stream.
void startunits(UnitReader& reader, const MdmData& mdm, std::FILE* stream, long long offset, int nvar1, int nvar2,
                bool withmeans);

// Reads the next block; false at the end of the file, and with reader.failure when the block runs past the end of the
// file or has an impossible size, and, for the MDM file, when the blocks do not agree with the counts of its head or
// with its level-3 table.
[[nodiscard]] bool readunit(UnitReader& reader, UnitBlock& block);
// The same for a block that has to be there: the end of the file is a cut.
[[nodiscard]] bool neededunit(UnitReader& reader, UnitBlock& block);
// readunit, but passes over means and records: fills nj, level2 and the IDs only. For reading ahead; follow it by
// seekunit before the next readunit.
[[nodiscard]] bool skimunit(UnitReader& reader, UnitBlock& block);

// Position of the next block, and return to such a position.
[[nodiscard]] long long unitposition(const UnitReader& reader);
void seekunit(UnitReader& reader, long long position);

// The working data file of a fit, a scratch file with a large buffer. startworking opens the next one for writing;
// finishworking makes it the working data file in the place of the one before. All its readers go by positions of their
// own. Failures 5 and 6.
struct WorkingFile {
  Array<char> buffer;
  ScratchFile stream;

  WorkingFile() = default;
  WorkingFile(WorkingFile&& other) noexcept { *this = std::move(other); }
  WorkingFile& operator=(WorkingFile&& other) noexcept {
    std::swap(buffer, other.buffer);
    std::swap(stream, other.stream);
    return *this;
  }
  [[nodiscard]] bool isopen() const { return stream != nullptr; }
  [[nodiscard]] std::FILE* file() const { return stream.get(); }
};
[[nodiscard]] Failure startworking(WorkingFile& made);
[[nodiscard]] Failure finishworking(WorkingFile made, WorkingFile& current);
// Writes one block. What cannot be written stays with the stream, for ferror.
void writeunit(std::FILE* stream, const UnitBlock& block, int nvar1, int nvar2, bool withmeans, bool numericids);

}  // namespace kdr
