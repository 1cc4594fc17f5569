#include "data/unitreader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "data/scratch.h"

namespace kdr {

namespace {

constexpr std::size_t buffersize = std::size_t{1} << 20;

bool readsmdm(const UnitReader& reader) { return reader.stream == reader.mdm->stream; }

void stopreading(UnitReader& reader, Failure failure) {
  if (!reader.failure) reader.failure = std::move(failure);
}

void damaged(UnitReader& reader, const char* what) {
  if (readsmdm(reader)) return stopreading(reader, damagedmdm(*reader.mdm, what));
  const char* file = reader.withmeans ? "A temporary file" : "The working data file";
  stopreading(reader, failedwith(std::string(file) + " is damaged: " + what + ".\n"));
}

// Reads up to `bytes` bytes at a file position. Less only at the end of the file, and when the reading has failed.
std::size_t readat(UnitReader& reader, char* destination, std::size_t bytes, long long position) {
  std::size_t done = 0;
  if (reader.end > 0)
    bytes = static_cast<std::size_t>(std::clamp<long long>(reader.end - position, 0, static_cast<long long>(bytes)));
  while (done < bytes && !reader.failure) {
    if (reader.observer != nullptr && reader.observer->givesup()) {
      stopreading(reader, failed(abandoned));
      break;
    }
    const ssize_t got = pread(fileno(reader.stream), destination + done, bytes - done,
                              static_cast<off_t>(position) + static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      Failure failure = failedwith("Unable to read " +
                                   (readsmdm(reader) ? reader.mdm->path : std::string("a temporary file")) + "\n");
      failure.systemerror = errno;
      stopreading(reader, std::move(failure));
      break;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

// Makes the bytes from the current one on available, as many as the buffer holds.
void refill(UnitReader& reader) {
  reader.start += static_cast<long long>(reader.at);
  reader.at = 0;
  reader.have = readat(reader, reader.buffer.data(), reader.buffer.size(), reader.start);
}

// The next `bytes` bytes, which the buffer does not hold to the end; a piece larger than the buffer comes straight from
// the file.
void takeacross(UnitReader& reader, char* to, std::size_t bytes) {
  const std::size_t buffered = std::min(bytes, reader.have - reader.at);
  if (buffered > 0) std::memcpy(to, reader.buffer.data() + reader.at, buffered);
  reader.at += buffered;
  const std::size_t rest = bytes - buffered;
  if (rest >= reader.buffer.size()) {
    reader.start += static_cast<long long>(reader.at);
    reader.at = reader.have = 0;
    if (readat(reader, to + buffered, rest, reader.start) != rest) return damaged(reader, "it is cut off");
    reader.start += static_cast<long long>(rest);
    return;
  }
  refill(reader);
  if (reader.have < rest) {
    reader.have = 0;
    return damaged(reader, "it is cut off");
  }
  std::memcpy(to + buffered, reader.buffer.data(), rest);
  reader.at = rest;
}

// Copies the next `bytes` bytes. What a reader that has failed leaves of them is of no use.
inline void take(UnitReader& reader, void* destination, std::size_t bytes) {
  if (bytes == 0) return;
  if (bytes > reader.have - reader.at) return takeacross(reader, static_cast<char*>(destination), bytes);
  std::memcpy(destination, reader.buffer.data() + reader.at, bytes);
  reader.at += bytes;
}

void takeid(UnitReader& reader, Id& id) {
  if (reader.mdm->numericids) {
    take(reader, &id.number, sizeof id.number);
    return;
  }
  take(reader, id.text.text, sizeof id.text.text);
  if (id.text.text[sizeof id.text.text - 1] != '\0' && std::memchr(id.text.text, '\0', sizeof id.text.text) == nullptr)
    damaged(reader, "an ID has no end");
}

void sizeblock(const UnitReader& reader, UnitBlock& block) {
  const auto nvar1 = static_cast<std::size_t>(reader.nvar1);
  const auto nvar2 = static_cast<std::size_t>(reader.nvar2);
  if (block.means.size() < nvar1) block.means.reset(nvar1);
  if (block.level2.size() < nvar2) block.level2.reset(nvar2);
  const std::size_t most = static_cast<std::size_t>(reader.mdm->maxnj) * nvar1;
  if (block.records.size() < most) block.records.reset(most);
}

// Reads nj; false at the end of the file.
bool takecount(UnitReader& reader, UnitBlock& block) {
  if (reader.failure) return false;
  if (reader.at == reader.have) refill(reader);
  if (reader.have == 0) return false;
  sizeblock(reader, block);
  take(reader, &block.nj, sizeof block.nj);
  const std::size_t room = block.records.size() / std::max<std::size_t>(static_cast<std::size_t>(reader.nvar1), 1);
  // A working copy keeps the units that deletion left without a record.
  if (block.nj < (reader.withmeans ? 1 : 0) || static_cast<std::size_t>(block.nj) > room ||
      (reader.withmeans && block.nj > reader.mdm->maxnj))
    damaged(reader, "a level-2 unit has an impossible size");
  return !reader.failure;
}

void taketail(UnitReader& reader, UnitBlock& block) {
  takeid(reader, block.id3);
  takeid(reader, block.id2);
  take(reader, block.level2.data(), static_cast<std::size_t>(reader.nvar2) * sizeof(double));
}

// Counts a delivered block of the MDM file, and holds the counts against the head once all blocks have been seen.
void tally(UnitReader& reader, const UnitBlock& block) {
  const MdmData& mdm = *reader.mdm;
  reader.tallyposition = unitposition(reader);
  ++reader.units;
  reader.records += block.nj;
  if (reader.units > mdm.numl2rec || reader.records > mdm.numl1rec)
    return damaged(reader, "it holds more than its head tells");
  // A run may have shortened its level-3 table since the file was read.
  if (mdm.nunits3 == mdm.numl3rec) {
    if (reader.group < 0 || !sameid(block.id3, level3id(mdm, reader.group), mdm.numericids)) {
      ++reader.group;
      if (reader.group >= mdm.nunits3 || !sameid(block.id3, level3id(mdm, reader.group), mdm.numericids))
        return damaged(reader, "its level-2 units do not follow its level-3 table");
    }
    if (reader.units == mdm.numl2rec && reader.group + 1 != mdm.nunits3)
      return damaged(reader, "its level-2 units do not follow its level-3 table");
  }
  if (reader.units == mdm.numl2rec && reader.records != mdm.numl1rec)
    return damaged(reader, "it holds fewer level-1 records than its head tells");
}

}  // namespace

void startunits(UnitReader& reader, const MdmData& mdm, std::FILE* stream, long long offset, int nvar1, int nvar2,
                bool withmeans) {
  reader.failure = {};
  if (std::fflush(stream) != 0 || std::ferror(stream) != 0) stopreading(reader, failed(fulldisk));
  reader.mdm = &mdm;
  reader.stream = stream;
  reader.end = readsmdm(reader) ? mdm.lastblock : 0;
  reader.nvar1 = nvar1;
  reader.nvar2 = nvar2;
  reader.withmeans = withmeans;
  if (reader.buffer.empty()) reader.buffer.reset(buffersize);
  reader.start = reader.tallyposition = offset;
  reader.have = reader.at = 0;
  reader.tallied = withmeans && stream == mdm.stream && offset == mdm.firstblock;
  reader.units = 0;
  reader.records = 0;
  reader.group = -1;
}

bool readunit(UnitReader& reader, UnitBlock& block) {
  // A jump that did not lead back to where the last block ended ends the tally.
  if (unitposition(reader) != reader.tallyposition) reader.tallied = false;
  if (!takecount(reader, block)) {
    if (!reader.failure && reader.tallied && reader.units != reader.mdm->numl2rec) damaged(reader, "it is cut off");
    return false;
  }
  const std::size_t row = static_cast<std::size_t>(reader.nvar1) * sizeof(double);
  if (reader.withmeans) take(reader, block.means.data(), row);
  take(reader, block.records.data(), static_cast<std::size_t>(block.nj) * row);
  taketail(reader, block);
  if (reader.tallied && !reader.failure) tally(reader, block);
  return !reader.failure;
}

bool neededunit(UnitReader& reader, UnitBlock& block) {
  if (readunit(reader, block)) return true;
  damaged(reader, "it is cut off");
  return false;
}

bool skimunit(UnitReader& reader, UnitBlock& block) {
  if (!takecount(reader, block)) return false;
  const long long rows = block.nj + (reader.withmeans ? 1LL : 0LL);
  seekunit(reader, unitposition(reader) + rows * reader.nvar1 * static_cast<long long>(sizeof(double)));
  taketail(reader, block);
  return !reader.failure;
}

long long unitposition(const UnitReader& reader) { return reader.start + static_cast<long long>(reader.at); }

void seekunit(UnitReader& reader, long long position) {
  if (position >= reader.start && position <= reader.start + static_cast<long long>(reader.have)) {
    reader.at = static_cast<std::size_t>(position - reader.start);
    return;
  }
  reader.start = position;
  reader.at = reader.have = 0;
}

Failure startworking(WorkingFile& made) {
  // Keep the number of writes low. The library takes the size of a buffer only with the buffer itself.
  constexpr std::size_t piece = std::size_t{256} << 10;
  made = WorkingFile{};
  made.buffer.reset(piece);
  made.stream = scratchopen();
  if (!made.isopen()) return notemporaryfile();
  std::setvbuf(made.file(), made.buffer.data(), _IOFBF, piece);
  return {};
}

Failure finishworking(WorkingFile made, WorkingFile& current) {
  if (std::fflush(made.file()) != 0 || std::ferror(made.file()) != 0) return failed(fulldisk);
  current = std::move(made);
  return {};
}

void writeunit(std::FILE* stream, const UnitBlock& block, int nvar1, int nvar2, bool withmeans, bool numericids) {
  const std::size_t row = static_cast<std::size_t>(nvar1) * sizeof(double);
  const auto write = [&](const void* bytes, std::size_t count) {
    if (count != 0) std::fwrite(bytes, 1, count, stream);
  };
  write(&block.nj, sizeof block.nj);
  if (withmeans) write(block.means.data(), row);
  write(block.records.data(), static_cast<std::size_t>(block.nj) * row);
  write(idbytes(block.id3, numericids), idwidth(numericids));
  write(idbytes(block.id2, numericids), idwidth(numericids));
  write(block.level2.data(), static_cast<std::size_t>(nvar2) * sizeof(double));
}

}  // namespace kdr
