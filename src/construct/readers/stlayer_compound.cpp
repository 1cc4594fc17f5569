#include "construct/readers/stlayer_compound.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <memory>

#include "driver/failures.h"
#include "driver/files.h"

namespace kdr {

namespace {

constexpr std::size_t headlength = 512;
constexpr std::size_t entrylength = 128;
constexpr unsigned smallshift = 6;
constexpr unsigned lastsector = 0xFFFFFFFA;  // numbers above it mark the end of a chain, or a sector without one
constexpr std::string_view magic = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";

unsigned word(std::string_view bytes, std::size_t at) { return static_cast<unsigned>(littlenumber(bytes, at, 4)); }

// The bytes of a sector, fewer where the file ends in it; sector 0 follows the head.
std::string_view sectorof(const CompoundFile& file, unsigned sector) {
  const std::size_t at = (std::size_t{sector} + 1) << file.sectorshift;
  return at < file.bytes.size() ? std::string_view(file.bytes).substr(at, std::size_t{1} << file.sectorshift)
                                : std::string_view();
}

// Puts the pieces of a chain together. False when it leaves the file or never ends.
bool chained(std::string_view from, unsigned shift, const std::string& table, unsigned start, std::string& content) {
  content.clear();
  while (start < lastsector) {
    const std::size_t at = std::size_t{start} << shift;
    if (at >= from.size() || 4 * (std::size_t{start} + 1) > table.size() || content.size() > from.size()) return false;
    content += from.substr(at, std::size_t{1} << shift);
    start = word(table, 4 * std::size_t{start});
  }
  return true;
}

bool sectorchain(const CompoundFile& file, unsigned start, std::string& content) {
  const std::size_t first = std::min(std::size_t{1} << file.sectorshift, file.bytes.size());
  return chained(std::string_view(file.bytes).substr(first), file.sectorshift, file.table, start, content);
}

// The table's own sectors are listed in the head and, where these places do not do, in a chain of sectors.
bool readtable(CompoundFile& file) {
  constexpr std::size_t listed = 76;
  const std::string_view head = std::string_view(file.bytes).substr(0, headlength);
  const std::size_t whole = std::size_t{1} << file.sectorshift;
  std::size_t left = file.bytes.size() / whole;  // sectors that there can be
  const auto takelist = [&](std::string_view list) {
    for (std::size_t at = 0; at + 4 <= list.size(); at += 4) {
      const unsigned sector = word(list, at);
      if (sector >= lastsector) continue;
      const std::string_view part = sectorof(file, sector);
      if (part.size() < whole || left-- == 0) return false;
      file.table += part;
    }
    return true;
  };
  if (!takelist(head.substr(listed))) return false;
  for (unsigned next = word(head, 68); next < lastsector;) {
    const std::string_view part = sectorof(file, next);
    if (part.size() < whole || left-- == 0 || !takelist(part.substr(0, whole - 4))) return false;
    next = word(part, whole - 4);
  }
  return true;
}

// The entry of a stream, or of the root, which has no name of its own here; empty when it is not there.
std::string_view entryof(const CompoundFile& file, std::string_view name) {
  constexpr char stream = 2, root = 5;
  for (std::size_t at = 0; at + entrylength <= file.directory.size(); at += entrylength) {
    const std::string_view entry = std::string_view(file.directory).substr(at, entrylength);
    if (name.empty() && entry[66] == root) return entry;
    if (name.empty() || entry[66] != stream || littlenumber(entry, 64, 2) != 2 * (name.size() + 1)) continue;
    bool same = true;
    for (std::size_t i = 0; i < name.size(); ++i)
      same =
          same && entry[2 * i + 1] == '\0' &&
          std::tolower(static_cast<unsigned char>(entry[2 * i])) == std::tolower(static_cast<unsigned char>(name[i]));
    if (same) return entry;
  }
  return {};
}

}  // namespace

unsigned long long littlenumber(std::string_view bytes, std::size_t at, int count) {
  unsigned long long value = 0;
  while (count-- > 0) value = value << 8U | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(count)]);
  return value;
}

bool readcompound(const std::string& path, CompoundFile& file) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(path.c_str(), "rb"), std::fclose);
  static std::array<char, std::size_t{1} << 16> piece;
  if (stream == nullptr) return false;
  for (std::size_t got = 0; (got = readupto(piece.data(), piece.size(), stream.get(), path)) > 0;) {
    checksignals();
    file.bytes.append(piece.data(), got);
    if (file.bytes.compare(0, magic.size(), magic) != 0) return false;
  }
  if (file.bytes.size() < headlength) return false;
  file.sectorshift = static_cast<unsigned>(littlenumber(file.bytes, 30, 2));
  file.smallerthan = word(file.bytes, 56);
  if (file.sectorshift != 9 && file.sectorshift != 12) return false;
  if (!readtable(file) || !sectorchain(file, word(file.bytes, 48), file.directory)) return false;
  const std::string_view root = entryof(file, "");
  return !root.empty() && sectorchain(file, word(root, 116), file.smalls) &&
         sectorchain(file, word(file.bytes, 60), file.smalltable);
}

bool hasstream(const CompoundFile& file, std::string_view name) { return !entryof(file, name).empty(); }

bool readstream(const CompoundFile& file, std::string_view name, std::string& content) {
  const std::string_view entry = entryof(file, name);
  if (entry.empty()) return false;
  const unsigned start = word(entry, 116);
  const std::size_t length = word(entry, 120);
  const bool whole = length < file.smallerthan ? chained(file.smalls, smallshift, file.smalltable, start, content)
                                               : sectorchain(file, start, content);
  if (!whole || content.size() < length) return false;
  content.resize(length);
  return true;
}

}  // namespace kdr
