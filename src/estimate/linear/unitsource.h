// Where the data pass gets its level-2 units from: whoever makes their cross-products.
#pragma once

#include <functional>

#include "data/mdm.h"
#include "kernel/array.h"

namespace kdr {

// One level-2 unit j as the data pass takes it. A_j and Y_j are the level-1 predictors and the outcome, a W_j the
// weight matrix of its records, which never leaves the source.
struct UnitProducts {
  int k = 0;   // its level-3 unit, from 0
  int nj = 0;  // records
  Id id2{};
  Array<double> AA;      // (npi + 1) squared, lower triangle: A'WA, then the row Y'WA and Y'WY
  Array<double> AA2;     // weighted runs: the same with the design factor of every row once more
  Array<double> level2;  // [nvar2] its level-2 row, centered
};

// Fills the next unit, in the order of the data; false behind the last one. The arrays have their sizes.
using UnitSource = std::function<bool(UnitProducts& unit)>;

// An array of the size that AA has, for npi level-1 coefficients.
[[nodiscard]] inline std::size_t productssize(int npi) {
  return (static_cast<std::size_t>(npi) + 1) * (static_cast<std::size_t>(npi) + 1);
}

}  // namespace kdr
