// Nodes and weights of Gauss-Hermite quadrature, and their tensor products.
#pragma once

#include "kernel/array.h"

namespace kdr {

// The n nodes of Gauss-Hermite quadrature (weight function exp(-x^2)), from the largest down, and their weights, by
// Newton's method on the orthonormal recurrence (Press et al., Numerical Recipes, 4.5). At most n squared passes are
// made for a root. False when they don't suffice, as for 1 and 2 points, or when searches have ended at roots that are
// not theirs, as from 199 points on.
[[nodiscard]] bool gauher(int n, double* x, double* w);

inline constexpr int mosteffects = 10;  // dimensions of a grid

// All combinations of one node for each of `dims` dimensions. The first dimension's node changes fastest.
struct NodeGrid {
  int dims = 0;
  int count = 0;         // points to the power of dims
  Array<double> x;       // dims by count: coordinate d of combination m at [d * count + m]
  Array<double> weight;  // [count] product of the weights w_m exp(x_m^2)
};

// False when the nodes cannot be found, or there are more than mosteffects dimensions.
[[nodiscard]] bool makegrid(NodeGrid& grid, int points, int dims);

}  // namespace kdr
