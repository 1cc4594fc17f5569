#include "report/residual/numbers.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
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

constexpr unsigned long long powers[] = {1, 10, 100, 1'000, 10'000, 100'000, 1'000'000};
constexpr int mostdecimals = 6;

// The nearest integer to |value| 10^decimals, halves to even. A double is m 2^-s with an integer m below 2^53, so the
// product is an integer of at most 73 bits over 2^s and can be rounded exactly. False where the result may not fit into
// 64 bits, or where there is no s from 1 to 127.
bool scaledinteger(double value, int decimals, unsigned long long& integer) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const int shift = 1075 - static_cast<int>(bits >> 52 & 0x7ff);
  constexpr std::uint64_t leading = std::uint64_t{1} << 52;
  const std::uint64_t m = (bits & (leading - 1)) | leading;
  if (decimals > mostdecimals || shift < 10 || shift > 127) return false;
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{m} * powers[decimals];
  const Wide half = Wide{1} << (shift - 1), rest = product & ((half << 1) - 1);
  integer = static_cast<unsigned long long>(product >> shift);
  if (rest > half || (rest == half && (integer & 1) != 0)) ++integer;
  return true;
}

constexpr auto pairs = [] {
  std::array<char, 200> digits{};
  for (std::size_t i = 0; i < 100; ++i) {
    digits[2 * i] = static_cast<char>('0' + i / 10);
    digits[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return digits;
}();

// Digits of `integer` to the left of `end`, at least `least` of them; returns where they begin.
char* digitsbefore(char* end, unsigned long long integer, int least) {
  for (; integer >= 10 || least > 1; least -= 2, integer /= 100) std::memcpy(end -= 2, &pairs[2 * (integer % 100)], 2);
  if (integer > 0 || least > 0) *--end = static_cast<char>('0' + integer);
  return end;
}

// "%.<decimals>f"; returns its length.
std::size_t fixed(char* at, double value, int decimals) {
  unsigned long long integer = 0;
  if (!scaledinteger(value, decimals, integer))
    return static_cast<std::size_t>(std::to_chars(at, at + longest, value, std::chars_format::fixed, decimals).ptr -
                                    at);
  // The whole digits, then the decimals again behind the point; copies of a fixed size need no call.
  char text[48];
  char* const end = text + 24;
  const char* const begin = digitsbefore(end, integer, decimals + 1);
  const auto whole = static_cast<std::size_t>(end - begin - decimals);
  char* to = at;
  *to = '-';
  to += std::signbit(value) ? 1 : 0;
  std::memcpy(to, begin, 24);
  to += whole;
  if (decimals > 0) {
    *to++ = '.';
    std::memcpy(to, end - decimals, 8);
    to += decimals;
  }
  return static_cast<std::size_t>(to - at);
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
