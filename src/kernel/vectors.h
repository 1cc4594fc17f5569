// Operations on vectors that loops do in place, and buffers that grow as they are needed.
#pragma once

#include <cstddef>

#include "kernel/array.h"

namespace kdr {

// values *= factor, and sum += factor * values, n of each.
inline void multiply(double* values, std::size_t n, double factor) {
  for (std::size_t i = 0; i < n; ++i) values[i] *= factor;
}
inline void addmultiple(double* sum, const double* values, std::size_t n, double factor) {
  for (std::size_t i = 0; i < n; ++i) sum[i] += factor * values[i];
}

// Room for n values at least; what stood there is lost when it grows.
inline void fit(Array<double>& array, std::size_t n) {
  if (array.size() < n) array.reset(n);
}

}  // namespace kdr
