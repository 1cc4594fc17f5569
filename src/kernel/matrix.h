// Element-wise and other small operations on dense row-major matrices. Unless a stride `ld` is given, the row stride
// is the number of columns. Nothing is allocated.
#pragma once

#include <cstddef>

namespace kdr {

// Multiplies the rows by cols block m of stride ld by s in place.
void scale(double* m, int rows, int cols, int ld, double s);

// Sorts the n doubles of a in ascending order, in at most O(n log n) steps. NaNs leave the order undefined.
void sortdoubles(double* a, std::ptrdiff_t n);

// The convergence count of adaptive quadrature at the log-likelihood s: the number of the n gradient entries g[i] with
//   |g[i]| / sqrt(max(|h[i][i]|, 1) max(|-2 s|, 1)) >= 0.0001,   h n by n.
[[nodiscard]] int countsignificant(int n, double s, const double* h, const double* g);

}  // namespace kdr
