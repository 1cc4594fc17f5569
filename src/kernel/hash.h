// FNV-1a, 64 bits: a checksum and a fingerprint, no protection against whoever wants two inputs to agree.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>

namespace kdr {

class Hash {
 public:
  void add(const void* bytes, std::size_t n) {
    constexpr unsigned long long prime = 1099511628211ULL;
    for (std::size_t i = 0; i < n; ++i) hash = (hash ^ static_cast<const unsigned char*>(bytes)[i]) * prime;
  }
  // A number as eight bytes, the lowest first.
  void add(std::integral auto value) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i)
      bytes[i] = static_cast<unsigned char>(static_cast<unsigned long long>(value) >> (8 * i));
    add(bytes, sizeof bytes);
  }
  void add(double value) { add(std::bit_cast<long long>(value)); }
  [[nodiscard]] unsigned long long value() const { return hash; }

 private:
  unsigned long long hash = 14695981039346656037ULL;
};

}  // namespace kdr
