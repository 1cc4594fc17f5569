// A raw text file read by counted bytes through one large buffer. A carriage return directly before a line feed is
// dropped, so a file with either kind of line end gives the same bytes.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "kernel/array.h"

namespace kdr {

inline constexpr std::size_t maxfield = 16383;  // bytes that one call can ask for

struct TextStream {
  std::FILE* stream = nullptr;
  std::string name;  // of the file, for messages
  Array<char> buffer;
  std::size_t at = 0;         // next byte
  std::size_t have = 0;       // bytes in the buffer
  bool ended = false;         // the file has no more
  bool heldcr = false;        // a carriage return at the end of a piece, kept back until the next byte is seen
  long long linesbefore = 0;  // line feeds in front of the buffer
  std::size_t recordat = 0;   // start of the record in hand, while it is in the buffer
  long long recordline = 0;   // its line from 1, once it is no longer in the buffer; else 0
};

// Starts at the stream's position, behind a byte order mark.
void starttext(TextStream& text, std::FILE* stream, const std::string& name);
// Marks the next byte as the start of a record.
void startrecord(TextStream& text);
// The line on which that record starts, from 1.
[[nodiscard]] long long recordline(const TextStream& text);

// Makes more bytes available behind those in hand; false at the end of the file. Stops with code 100 when the file
// cannot be read.
bool filltext(TextStream& text);

// The next `width` bytes (at most maxfield), which are then behind the reader; null when fewer are left. The bytes stay
// in place until the next call. Eight bytes can always be read at the place returned, whatever the width.
[[nodiscard]] inline const char* takebytes(TextStream& text, std::size_t width) {
  while (text.have - text.at < width)
    if (!filltext(text)) return nullptr;
  const char* bytes = text.buffer.data() + text.at;
  text.at += width;
  return bytes;
}

// Passes over the rest of the line with its line feed, but over no more than `most` bytes. False when the file ended
// first.
[[nodiscard]] bool skipline(TextStream& text, std::size_t most);

}  // namespace kdr
