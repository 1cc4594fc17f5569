// A binary raw file read through one large buffer. Nothing is read past the end of the file, and what a file claims of
// itself can be held against the bytes that it has left.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "kernel/array.h"

namespace kdr {

struct ByteReader {
  std::FILE* stream = nullptr;
  std::string name;      // of the file, for messages
  long long length = 0;  // of the file
  Array<unsigned char> buffer;
  long long start = 0;   // file position of the buffer's first byte
  std::size_t at = 0;    // next byte
  std::size_t have = 0;  // bytes in the buffer
};

// Opens a file, returns its stream, and starts at its beginning. Stops with code 100 when it is no ordinary file or
// cannot be opened.
[[nodiscard]] std::FILE* startbytes(ByteReader& reader, const std::string& name);
// Goes to a file position, at most the file's length.
void seekbytes(ByteReader& reader, long long position);
// Brings at least `width` bytes into the buffer, or all that are left. Stops with code 100 when the file can't be read.
void fillbytes(ByteReader& reader, std::size_t width);
// Passes over `count` bytes; false when fewer are left, or for a count below 0.
[[nodiscard]] bool skipbytes(ByteReader& reader, long long count);

[[nodiscard]] inline long long byteposition(const ByteReader& reader) {
  return reader.start + static_cast<long long>(reader.at);
}
[[nodiscard]] inline long long bytesleft(const ByteReader& reader) { return reader.length - byteposition(reader); }

// The next `width` bytes, without passing over them, or as many as the file has left: `got` tells how many. They stay
// in place until the next call. A width beyond the buffer's makes it grow, but never beyond the file.
[[nodiscard]] inline const unsigned char* peekbytes(ByteReader& reader, std::size_t width, std::size_t& got) {
  if (reader.have - reader.at < width) fillbytes(reader, width);
  got = std::min(width, reader.have - reader.at);
  return reader.buffer.data() + reader.at;
}
// The next `width` bytes, which are then behind the reader; null when fewer are left.
[[nodiscard]] inline const unsigned char* takebytes(ByteReader& reader, std::size_t width) {
  std::size_t got = 0;
  const unsigned char* bytes = peekbytes(reader, width, got);
  if (got < width) return nullptr;
  reader.at += width;
  return bytes;
}

// The number whose bytes stand at a place, low byte first or high byte first.
template <class Number>
[[nodiscard]] Number ordered(const unsigned char* bytes, std::endian order) {
  std::array<unsigned char, sizeof(Number)> copy;
  std::copy_n(bytes, copy.size(), copy.begin());
  if (order != std::endian::native) std::reverse(copy.begin(), copy.end());
  return std::bit_cast<Number>(copy);
}
template <class Number>
[[nodiscard]] Number lowfirst(const unsigned char* bytes) {
  return ordered<Number>(bytes, std::endian::little);
}
template <class Number>
[[nodiscard]] Number highfirst(const unsigned char* bytes) {
  return ordered<Number>(bytes, std::endian::big);
}

// Takes the next number of the file; false at its end.
template <class Number>
[[nodiscard]] bool takelow(ByteReader& reader, Number& number) {
  const unsigned char* bytes = takebytes(reader, sizeof(Number));
  if (bytes != nullptr) number = lowfirst<Number>(bytes);
  return bytes != nullptr;
}

// Says on the console and in the log that the data of a file end too early: in case `caseread` (from 1), and how many
// of the `stated` cases are missing; `stated` is below 0 where the file doesn't tell. Counts as an extra message.
void reportbroken(const ByteReader& reader, long long caseread, bool incase, long long stated);

}  // namespace kdr
