// The numbers that most fields of a text hold, converted without the library's general scan: an optional sign, digits
// with at most one point among them, no exponent.
#pragma once

#include <cstddef>

namespace kdr {

inline constexpr int mostdigits = 15;  // a whole number of so many digits is exact as a double
inline constexpr double powersoften[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                         1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// The quotient of two exact doubles is the number's nearest double. A product with -1 keeps the sign of a zero, and
// costs no branch.
[[nodiscard]] inline double plainvalue(long long digits, std::ptrdiff_t decimals, bool negative) {
  static constexpr double signs[] = {1.0, -1.0};
  return static_cast<double>(digits) / powersoften[decimals] * signs[negative];
}

// Converts the plain number that begins at `from`. Returns the place behind it, or null when there is none, or one of
// more than 15 digits.
[[nodiscard]] inline const char* startswithnumber(const char* from, const char* end, double& value) {
  const auto isdigit = [&] { return from < end && static_cast<unsigned>(*from - '0') <= 9; };
  const bool negative = from < end && *from == '-';
  if (negative || (from < end && *from == '+')) ++from;
  long long digits = 0;
  const char* first = from;
  while (isdigit() && from - first < mostdigits) digits = 10 * digits + (*from++ - '0');
  std::ptrdiff_t count = from - first;
  std::ptrdiff_t decimals = 0;
  if (from < end && *from == '.') {
    first = ++from;
    while (isdigit() && count + (from - first) < mostdigits) digits = 10 * digits + (*from++ - '0');
    decimals = from - first;
    count += decimals;
  }
  if (count == 0 || isdigit()) return nullptr;
  value = plainvalue(digits, decimals, negative);
  return from;
}

// Converts the plain number at the end of a field, at most 15 digits of it. `before` tells how many bytes of the field
// stand in front of it. False when no plain number stands there. Read from its end, where numbers in columns are alike.
[[nodiscard]] inline bool endsinnumber(const char* bytes, std::size_t width, double& value, std::size_t& before) {
  static constexpr long long wholepowers[mostdigits] = {
      1,         10,         100,         1000,         10000,         100000,         1000000,        10000000,
      100000000, 1000000000, 10000000000, 100000000000, 1000000000000, 10000000000000, 100000000000000};
  std::size_t left = width;
  long long digits = 0;
  int count = 0;
  int decimals = -1;
  for (; left > 0; --left) {
    const auto digit = static_cast<unsigned>(bytes[left - 1] - '0');
    if (digit <= 9) {
      if (count == mostdigits) return false;
      digits += digit * wholepowers[count++];
    } else if (bytes[left - 1] == '.' && decimals < 0) {
      decimals = count;
    } else {
      break;
    }
  }
  const char sign = left > 0 ? bytes[left - 1] : ' ';
  before = left - static_cast<std::size_t>(sign == '-' || sign == '+');
  value = plainvalue(digits, decimals > 0 ? decimals : 0, sign == '-');
  return count > 0;
}

// Converts a field that is such a number with nothing but blanks around it; false for any other.
[[nodiscard]] inline bool plainfield(const char* bytes, std::size_t width, double& value) {
  std::size_t before = 0;
  while (width > 0 && bytes[width - 1] == ' ') --width;
  if (!endsinnumber(bytes, width, value, before)) return false;
  while (before > 0 && bytes[before - 1] == ' ') --before;
  return before == 0;
}

}  // namespace kdr
