// Integer tables of the model: rows of one width, grouped by equation set.
#pragma once

#include <cstddef>

#include "kernel/array.h"

namespace kdr {

// The two covariance matrices of the random effects: tau(pi) of level 2, tau(beta) of level 3.
enum class Tau { pi, beta };

// cells[(set * rows + r) * width + i]. A table with one row per set is addressed by row(set).
struct IntTable {
  Array<int> cells;
  int rows = 0;   // rows of one equation set
  int width = 0;  // ints of one row

  void reset(int sets, int rowsperset, int rowwidth, int value) {
    rows = rowsperset;
    width = rowwidth;
    cells.reset(static_cast<std::size_t>(sets) * static_cast<std::size_t>(rows) * static_cast<std::size_t>(width));
    if (value != 0) cells.fill(value);
  }
  [[nodiscard]] int* row(int set, int r = 0) {
    return cells.data() +
           (static_cast<std::size_t>(set) * static_cast<std::size_t>(rows) + static_cast<std::size_t>(r)) *
               static_cast<std::size_t>(width);
  }
  [[nodiscard]] const int* row(int set, int r = 0) const { return const_cast<IntTable*>(this)->row(set, r); }
};

}  // namespace kdr
