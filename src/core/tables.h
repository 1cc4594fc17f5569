// Integer tables of the model: rows of one width, grouped by equation set.
#pragma once

#include <cstddef>

#include "kernel/array.h"

namespace kdr {

// The two covariance matrices of the random effects: tau(pi) of level 2, tau(beta) of level 3.
enum class Tau { pi, beta };
[[nodiscard]] constexpr const char* nameof(Tau which) { return which == Tau::pi ? "pi" : "beta"; }
// What belongs to one of them, of two of a kind.
template <class T>
[[nodiscard]] constexpr T& ofthe(Tau which, T& pi, T& beta) {
  return which == Tau::pi ? pi : beta;
}

// cells[(set * rows + r) * width + i]. A table with one row per set is addressed by row(set).
template <class T>
struct EquationTable {
  Array<T> cells;
  int rows = 0;   // rows of one equation set
  int width = 0;  // cells of one row

  void reset(int sets, int rowsperset, int rowwidth, T value) {
    rows = rowsperset;
    width = rowwidth;
    cells.reset(static_cast<std::size_t>(sets) * static_cast<std::size_t>(rows) * static_cast<std::size_t>(width));
    if (value != T{}) cells.fill(value);
  }
  [[nodiscard]] T* row(int set, int r = 0) {
    return cells.data() +
           (static_cast<std::size_t>(set) * static_cast<std::size_t>(rows) + static_cast<std::size_t>(r)) *
               static_cast<std::size_t>(width);
  }
  [[nodiscard]] const T* row(int set, int r = 0) const { return const_cast<EquationTable*>(this)->row(set, r); }
};
using IntTable = EquationTable<int>;

}  // namespace kdr
