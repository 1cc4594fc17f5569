#include "construct/readers/textstream.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "driver/failures.h"
#include "driver/files.h"
#include "driver/textmark.h"

namespace kdr {

namespace {

constexpr std::size_t piecesize = std::size_t{1} << 20;
constexpr std::size_t slack = 8;  // bytes behind the last one that may be read, though they mean nothing

long long linefeeds(const char* from, const char* to) {
  long long count = 0;
  while (from < to) {
    from = static_cast<const char*>(std::memchr(from, '\n', static_cast<std::size_t>(to - from)));
    if (from == nullptr) break;
    ++from;
    ++count;
  }
  return count;
}

// Drops each carriage return that a line feed follows. `bytes` has room for one byte in front of the piece, where a
// carriage return that the last piece ended with goes. Returns the kept length.
std::size_t droplinereturns(TextStream& text, char* bytes, std::size_t count) {
  const char* end = bytes + count;
  char* to = static_cast<char*>(std::memchr(bytes, '\r', count));
  if (to == nullptr) return count;
  for (const char* from = to; from < end; ++from) {
    if (*from == '\r') {
      if (from + 1 == end) {
        text.heldcr = true;
        break;
      }
      if (from[1] == '\n') continue;
    }
    *to++ = *from;
  }
  return static_cast<std::size_t>(to - bytes);
}

}  // namespace

void starttext(TextStream& text, std::FILE* stream, const std::string& name) {
  if (text.buffer.empty()) text.buffer.reset(piecesize + maxfield + 1 + slack);
  text.stream = stream;
  text.name = name;
  text.at = text.have = text.recordat = 0;
  text.ended = text.heldcr = false;
  text.linesbefore = text.recordline = 0;
  if (filltext(text) && std::string_view(text.buffer.data(), text.have).starts_with(bytemark))
    text.at = bytemark.size();
}

void startrecord(TextStream& text) {
  text.recordat = text.at;
  text.recordline = 0;
}

long long recordline(const TextStream& text) {
  if (text.recordline != 0) return text.recordline;
  return text.linesbefore + linefeeds(text.buffer.data(), text.buffer.data() + text.recordat) + 1;
}

bool filltext(TextStream& text) {
  if (text.ended) return false;
  checksignals();
  char* bytes = text.buffer.data();
  std::size_t counted = 0;
  if (text.at > 0 && text.recordline == 0) {
    text.recordline = recordline(text);
    text.linesbefore = text.recordline - 1;
    counted = text.recordat;
  }
  text.linesbefore += linefeeds(bytes + counted, bytes + text.at);
  text.have -= text.at;
  std::memmove(bytes, bytes + text.at, text.have);
  text.at = 0;

  char* piece = bytes + text.have;
  const std::size_t room = text.buffer.size() - slack - text.have;
  std::size_t carried = 0;
  if (text.heldcr) {
    *piece = '\r';
    carried = 1;
    text.heldcr = false;
  }
  const std::size_t got = readupto(piece + carried, room - carried, text.stream, text.name);
  text.ended = got == 0;
  if (text.ended) {
    text.have += carried;  // a carriage return at the very end stays
    return carried > 0;
  }
  text.have += droplinereturns(text, piece, carried + got);
  return true;
}

bool skipline(TextStream& text, std::size_t most) {
  while (most > 0) {
    if (text.at == text.have && !filltext(text)) return false;
    const std::size_t look = std::min(most, text.have - text.at);
    const char* from = text.buffer.data() + text.at;
    const char* feed = static_cast<const char*>(std::memchr(from, '\n', look));
    if (feed != nullptr) {
      text.at += static_cast<std::size_t>(feed - from) + 1;
      return true;
    }
    text.at += look;
    most -= look;
  }
  return true;
}

}  // namespace kdr
