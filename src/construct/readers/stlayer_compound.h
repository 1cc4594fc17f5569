// Compound files, the small file system within a file that older office documents are made of.
#pragma once

#include <string>
#include <string_view>

namespace kdr {

struct CompoundFile {
  std::string bytes;         // the whole file
  std::string table;         // of its sectors: the one that follows each, four bytes for each
  std::string directory;     // 128 bytes for each entry
  std::string smalls;        // the content of all small streams, in pieces of their own
  std::string smalltable;    // of these pieces
  unsigned sectorshift = 0;  // the size of a sector is two to this power
  unsigned smallerthan = 0;  // a stream of fewer bytes is a small one
};

// A number of `count` bytes, low byte first.
[[nodiscard]] unsigned long long littlenumber(std::string_view bytes, std::size_t at, int count);

// Reads the file and its tables. False when it is no compound file, or a damaged one.
[[nodiscard]] bool readcompound(const std::string& path, CompoundFile& file);
// Whether the file has a stream of this name, in whatever case.
[[nodiscard]] bool hasstream(const CompoundFile& file, std::string_view name);
// The content of that stream. False when it is not there as a whole.
[[nodiscard]] bool readstream(const CompoundFile& file, std::string_view name, std::string& content);

}  // namespace kdr
