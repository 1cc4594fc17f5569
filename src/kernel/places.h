// Numbers keys in the order in which they appear: a table of open addresses, which a million keys in random order take
// a fraction of the time of that of std::unordered_map.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kdr {

class Places {
 public:
  // The number of the key, from 0; that of a new one is what size() was.
  std::uint32_t of(std::uint64_t key) {
    std::size_t slot = slotof(key);
    for (; table[slot] != empty; slot = (slot + 1) & (table.size() - 1))
      if (keys[table[slot]] == key) return table[slot];
    const auto fresh = static_cast<std::uint32_t>(keys.size());
    table[slot] = fresh;
    keys.push_back(key);
    if (2 * keys.size() > table.size()) grow();
    return fresh;
  }
  [[nodiscard]] std::size_t size() const { return keys.size(); }

 private:
  static constexpr std::uint32_t empty = ~std::uint32_t{0};

  // The highest bits of a product by the golden ratio, which hang on all lower ones. Small whole numbers as doubles
  // have none but high bits: these are brought down first.
  [[nodiscard]] std::size_t slotof(std::uint64_t key) const {
    return static_cast<std::size_t>(((key ^ key >> 32U) * 0x9e3779b97f4a7c15ULL) >>
                                    (64 - std::bit_width(table.size() - 1)));
  }
  void grow() {
    table.assign(2 * table.size(), empty);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      std::size_t slot = slotof(keys[i]);
      while (table[slot] != empty) slot = (slot + 1) & (table.size() - 1);
      table[slot] = static_cast<std::uint32_t>(i);
    }
  }

  std::vector<std::uint64_t> keys;
  std::vector<std::uint32_t> table = std::vector<std::uint32_t>(256, empty);
};

// Two numbers below 2^32 as one key, and a real number as one, 0 and -0 being the same.
constexpr std::uint64_t keyof(std::uint32_t a, std::uint32_t b) { return std::uint64_t{a} << 32U | b; }
inline std::uint64_t keyof(double value) { return std::bit_cast<std::uint64_t>(value + 0.0); }

}  // namespace kdr
