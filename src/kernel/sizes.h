// Counts of the model, which are ints, as sizes of arrays.
#pragma once

#include <cstddef>

namespace kdr {

constexpr std::size_t at(int i) { return static_cast<std::size_t>(i); }
constexpr std::size_t square(int n) { return at(n) * at(n); }
// The packed form of a symmetric matrix of order n: its lower triangle by rows.
constexpr std::size_t packedsize(std::size_t n) { return n * (n + 1) / 2; }
constexpr std::size_t packedsize(int n) { return packedsize(at(n)); }

}  // namespace kdr
