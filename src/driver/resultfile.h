// A result file that is complete or not there: it grows under a temporary name beside its target, through a large
// buffer, and takes the target's name at the end. Any other end of the run removes it. Where the target's folder takes
// no new file, a target that may be written is written in place, and any other end of the run leaves it empty.
//
// openresult, then writeresult, writevalue or roomin/wrote as often as needed, then finishresult.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <type_traits>

#include "kernel/array.h"

namespace kdr {

struct ResultFile {
  std::FILE* stream = nullptr;
  std::string given;      // the name that the user gave
  std::string phase;      // of the run, whose values it has; may be empty
  std::string target;     // the file behind it
  std::string temporary;  // the name until the end; empty when the target is written in place
  Array<char> buffer;
  std::size_t used = 0;
  long long bytes = 0;  // of those that came through the buffer: how many, and their CRC-32
  std::uint32_t crc = 0;
};

// Opens the file for writing. Stops with code 100 and the words of openfile when that cannot be done, with failure 5 on
// a full disk.
void openresult(ResultFile& file, const std::string& path);
// The same for small texts, written by fprintf to file.stream. With `append` it begins with what the target holds.
void opentext(ResultFile& file, const std::string& path, bool append = false);
// Appends bytes. Failure 5, which removes the file.
void writeresult(ResultFile& file, const void* bytes, std::size_t count);
void writeresult(ResultFile& file, std::string_view text);
// Appends the bytes of a number, low byte first.
template <class T>
void writevalue(ResultFile& file, T value) {
  static_assert(std::is_arithmetic_v<T>);
  writeresult(file, &value, sizeof value);
}
// Writes the buffer to the stream. Failure 5, which removes the file.
void flushresult(ResultFile& file);
// Room for `count` bytes (at most 64 KiB) at the file's end; wrote() says how many of them were filled.
[[nodiscard]] inline char* roomin(ResultFile& file, std::size_t count) {
  if (file.used + count > file.buffer.size()) flushresult(file);
  return file.buffer.data() + file.used;
}
inline void wrote(ResultFile& file, std::size_t count) { file.used += count; }
// Writes what is left and gives the file its name. Failure 5, which removes it.
void finishresult(ResultFile& file);
// The same for the stop sequence: false, and the file is not there, when it could not be written.
bool tryfinish(ResultFile& file);

}  // namespace kdr
