#include "construct/readers/bytereader.h"

#include <sys/stat.h>

#include "construct/buildlog.h"
#include "driver/failures.h"
#include "driver/files.h"

namespace kdr {

namespace {

constexpr std::size_t piecesize = std::size_t{1} << 20;

}  // namespace

std::FILE* startbytes(ByteReader& reader, const std::string& name) {
  struct stat about {};
  const bool there = stat(name.c_str(), &about) == 0;
  // Looked at before it is opened, for a pipe that nobody writes to would never open. A directory has words of its own.
  if (there && !S_ISREG(about.st_mode) && !S_ISDIR(about.st_mode))
    stopwith("%s is no ordinary file. Raw data of this type cannot be read from it.\n", name.c_str());
  reader.stream = openfile(name, "rb");
  reader.name = name;
  reader.length = about.st_size;
  if (reader.buffer.empty()) reader.buffer.reset(piecesize);
  seekbytes(reader, 0);
  return reader.stream;
}

void seekbytes(ByteReader& reader, long long position) {
  const long long offset = position - reader.start;
  if (offset >= 0 && offset <= static_cast<long long>(reader.have)) {
    reader.at = static_cast<std::size_t>(offset);
    return;
  }
  if (fseeko(reader.stream, position, SEEK_SET) != 0) stopwith("Unable to read %s\n", reader.name.c_str());
  reader.start = position;
  reader.at = reader.have = 0;
}

void fillbytes(ByteReader& reader, std::size_t width) {
  checksignals();
  width = static_cast<std::size_t>(std::min(static_cast<long long>(width), bytesleft(reader)));
  if (reader.have - reader.at >= width) return;
  reader.start += static_cast<long long>(reader.at);
  reader.have -= reader.at;
  std::memmove(reader.buffer.data(), reader.buffer.data() + reader.at, reader.have);
  reader.at = 0;
  if (width > reader.buffer.size()) reader.buffer.resize(width);
  reader.have +=
      readupto(reader.buffer.data() + reader.have, reader.buffer.size() - reader.have, reader.stream, reader.name);
  if (reader.have < width) reader.length = reader.start + static_cast<long long>(reader.have);  // it has shrunk
}

bool skipbytes(ByteReader& reader, long long count) {
  if (count < 0 || count > bytesleft(reader)) return false;
  seekbytes(reader, byteposition(reader) + count);
  return true;
}

void reportbroken(const ByteReader& reader, long long caseread, bool incase, long long stated) {
  countextra();
  if (incase) {
    logboth("%s is cut short or damaged: it breaks off in case %lld, which does not count.\n", reader.name.c_str(),
            caseread);
  } else {
    logboth("%s is cut short or damaged: it ends before case %lld.\n", reader.name.c_str(), caseread);
  }
  if (stated >= caseread)
    logboth("%lld of the %lld cases that it states are missing.\n", stated - caseread + 1, stated);
}

}  // namespace kdr
