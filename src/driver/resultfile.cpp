#include "driver/resultfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr std::size_t buffersize = std::size_t{1} << 20;
constexpr int mosttemporaries = 1000;
constexpr std::size_t maxsuffix = 10;  // ".part999"

// CRC-32 of bytes behind others whose CRC is `crc`: the reflected polynomial 0xEDB88320, eight bytes a step. Table k
// holds the CRC of a byte with k zero bytes behind it.
constexpr auto crctables = [] {
  std::array<std::array<std::uint32_t, 256>, 8> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (crc & 1 ? 0xEDB88320U : 0U);
    tables[0][byte] = crc;
  }
  for (std::size_t k = 1; k < 8; ++k)
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t before = tables[k - 1][byte];
      tables[k][byte] = (before >> 8) ^ tables[0][before & 255];
    }
  return tables;
}();

std::uint32_t crc32(std::uint32_t crc, const char* from, std::size_t count) {
  crc = ~crc;
  for (; count >= 8; from += 8, count -= 8) {
    std::uint64_t eight = 0;
    std::memcpy(&eight, from, 8);
    eight ^= crc;
    crc = 0;
    for (std::size_t k = 0; k < 8; ++k) crc ^= crctables[7 - k][(eight >> (8 * k)) & 255];
  }
  for (; count > 0; ++from, --count) crc = (crc >> 8) ^ crctables[0][(crc ^ static_cast<unsigned char>(*from)) & 255];
  return ~crc;
}

// `target` with `suffix` behind it, its name cut where the whole would be longer than a name may be.
std::string temporaryname(const std::string& target, const std::string& suffix) {
  const std::size_t slash = target.rfind('/');
  const std::size_t base = slash == std::string::npos ? 0 : slash + 1;
  return target.substr(0, base + std::min(target.size() - base, NAME_MAX - suffix.size())) + suffix;
}

// Lets those use the file who may use the one whose place it is going to take.
void inherit(std::FILE* stream, const struct stat& old) {
  mode_t rights = old.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO);
  const int handle = fileno(stream);
  const bool group = fchown(handle, old.st_uid, old.st_gid) == 0 || fchown(handle, uid_t(-1), old.st_gid) == 0;
  if (!group) rights &= ~mode_t{S_IRWXG};
  std::ignore = fchmod(handle, rights);
}

// Failure 5, behind the name of the file.
[[noreturn]] void failwriting(const ResultFile& file) {
  std::printf("%s:", printable(file.given).c_str());
  fail(5);
}

// Opens a new file beside the target; null when the folder takes none. What stands there already, a link too, is
// another's and stays. Failure 5 on a full disk.
std::FILE* opentemporary(ResultFile& file) {
  struct stat old {};
  const bool replaces = stat(file.target.c_str(), &old) == 0;
  for (int n = 0; n < mosttemporaries; ++n) {
    file.temporary = temporaryname(file.target, n == 0 ? ".part" : ".part" + std::to_string(n));
    const mode_t usual = replaces ? umask(S_IRWXG | S_IRWXO) : mode_t{};
    std::FILE* stream = std::fopen(file.temporary.c_str(), "wbx");
    if (replaces) umask(usual);
    if (stream != nullptr && replaces) inherit(stream, old);
    if (stream != nullptr) return stream;
    if (errno == ENOSPC || errno == EDQUOT) failwriting(file);
    if (errno != EEXIST) break;
  }
  file.temporary.clear();
  return nullptr;
}

void openstream(ResultFile& file, const std::string& path) {
  file.given = path;
  file.target = behindlinks(path);
  file.temporary.clear();
  file.used = 0;
  file.bytes = 0;
  file.crc = 0;
  const bool special = isspecial(file.target);
  // Room for the name before there is a file, so that no want of memory leaves one that nobody knows.
  std::string name;
  name.reserve(file.target.size() + maxsuffix);
  std::vector<std::string>& unfinished = run.files.unfinished;
  if (unfinished.size() == unfinished.capacity()) unfinished.reserve(2 * unfinished.size() + 1);
  file.stream = special ? nullptr : opentemporary(file);
  // A device, or a folder that takes no new file: the target as it stands, or the message that it cannot be had.
  if (file.stream == nullptr) file.stream = openfile(path, "wb");
  if (special) return;
  name = file.temporary.empty() ? file.target : file.temporary;
  unfinished.push_back(std::move(name));
}

}  // namespace

void opentext(ResultFile& file, const std::string& path, bool append) {
  std::string before;
  struct stat status {};
  if (append && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
    std::FILE* old = openfile(path, "rb");
    for (int c = 0; (c = std::fgetc(old)) != EOF;) before.push_back(static_cast<char>(c));
    checkread(old, path);
    std::fclose(old);
  }
  openstream(file, path);
  writechk(before.data(), before.size(), file.stream);
}

void openresult(ResultFile& file, const std::string& path) {
  if (file.buffer.empty()) file.buffer.reset(buffersize);
  openstream(file, path);
  std::setvbuf(file.stream, nullptr, _IONBF, 0);
}

void flushresult(ResultFile& file) {
  if (file.used != 0 && std::fwrite(file.buffer.data(), 1, file.used, file.stream) != file.used) failwriting(file);
  if (!run.files.results.empty()) file.crc = crc32(file.crc, file.buffer.data(), file.used);
  file.bytes += static_cast<long long>(file.used);
  file.used = 0;
}

void writeresult(ResultFile& file, const void* bytes, std::size_t count) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    if (file.used == file.buffer.size()) flushresult(file);
    const std::size_t piece = std::min(count, file.buffer.size() - file.used);
    std::memcpy(file.buffer.data() + file.used, from, piece);
    file.used += piece;
    from += piece;
    count -= piece;
  }
}

void writeresult(ResultFile& file, std::string_view text) { writeresult(file, text.data(), text.size()); }

bool tryfinish(ResultFile& file) {
  const bool unwritten = std::ferror(file.stream) != 0;
  const bool unclosed = std::fclose(file.stream) != 0;
  file.stream = nullptr;
  const bool inplace = file.temporary.empty();
  if (unwritten || unclosed || (!inplace && std::rename(file.temporary.c_str(), file.target.c_str()) != 0))
    return false;
  std::erase(run.files.unfinished, inplace ? file.target : file.temporary);
  std::vector<std::string>& made = run.files.made;
  if (std::find(made.begin(), made.end(), file.given) == made.end()) made.push_back(file.given);
  std::erase_if(run.files.marks, [&](const FileMark& mark) { return mark.name == file.given; });
  if (file.bytes > 0) run.files.marks.push_back({file.given, file.bytes, file.crc, file.phase});
  return true;
}

void finishresult(ResultFile& file) {
  flushresult(file);
  if (!tryfinish(file)) failwriting(file);
}

}  // namespace kdr
