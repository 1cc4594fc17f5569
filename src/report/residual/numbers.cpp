#include "report/residual/numbers.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace kdr {

namespace {

constexpr std::size_t longest = 400;  // a double in fixed notation has at most 309 digits before the point

// Right-justifies what stands at `at`.
void justify(ResultFile& file, char* at, std::size_t length, std::size_t width) {
  if (length < width) {
    std::memmove(at + (width - length), at, length);
    std::memset(at, ' ', width - length);
    length = width;
  }
  wrote(file, length);
}

std::size_t fixed(char* at, double value, int decimals) {
  return static_cast<std::size_t>(std::to_chars(at, at + longest, value, std::chars_format::fixed, decimals).ptr - at);
}

}  // namespace

void appendnumber(ResultFile& file, double value, int decimals) {
  char* at = roomin(file, longest);
  wrote(file, fixed(at, value, decimals));
}

void appendfield(ResultFile& file, double value, int width, int decimals) {
  char* at = roomin(file, longest);
  const auto room = static_cast<std::size_t>(width);
  std::size_t length = fixed(at, value, decimals);
  if (length > room && length - room < static_cast<std::size_t>(decimals))
    length = fixed(at, value, decimals - static_cast<int>(length - room));
  for (int digits = decimals == 0 ? 6 : 5; length > room && digits >= 0; --digits)
    length = static_cast<std::size_t>(
        std::to_chars(at, at + longest, value, std::chars_format::scientific, digits).ptr - at);
  justify(file, at, length, room);
}

void appendcount(ResultFile& file, int value, int width) {
  char* at = roomin(file, longest);
  const auto length = static_cast<std::size_t>(std::to_chars(at, at + longest, value).ptr - at);
  justify(file, at, length, static_cast<std::size_t>(width));
}

void appendtext(ResultFile& file, const char* text, int width) {
  char* at = roomin(file, static_cast<std::size_t>(width));
  const std::size_t length = strnlen(text, static_cast<std::size_t>(width));
  std::memcpy(at, text, length);
  justify(file, at, length, static_cast<std::size_t>(width));
}

}  // namespace kdr
