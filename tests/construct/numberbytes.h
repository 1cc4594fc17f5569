// The parts that binary files are made of.
#pragma once

#include <cstring>
#include <string>

namespace kdr {

// The bytes of a number, low byte first (on the machines that this suite runs on).
template <class Number>
std::string lowbytes(Number number) {
  std::string bytes(sizeof number, '\0');
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}
inline std::string int32bytes(int number) { return lowbytes(number); }
inline std::string int16bytes(int number) { return lowbytes(static_cast<short>(number)); }
inline std::string fixed(std::string text, std::size_t width, char filler = ' ') {
  text.resize(width, filler);
  return text;
}

}  // namespace kdr
