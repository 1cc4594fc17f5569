// Small operations on vectors and on dense row-major matrices, whose row stride is the number of columns. Packed
// symmetric matrices: kernel/sizes.h. Nothing is allocated.
#pragma once

#include <cstddef>

namespace kdr {

// x'y, n values each, the terms added one by one in their order.
inline double dot(const double* x, const double* y, std::size_t n) {
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += x[i] * y[i];
  return sum;
}

// Copies the lower triangle of m, n by n, into the upper one.
void mirror(int n, double* m);
// Sets every off-diagonal element of t, n by n, to 0.0.
void cleardiagonaloff(double* t, int n);
// Adds `factor` times the packed symmetric matrix d to t, n by n.
void addtriangle(double* t, int n, const double* d, double factor);

// Expands a packed symmetric matrix of order n into both triangles, and the reverse.
inline void unpack(int n, const double* packed, double* full) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) full[i * n + j] = full[j * n + i] = *packed++;
}
inline void pack(int n, const double* full, double* packed) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) *packed++ = full[i * n + j];
}

// Calls use(e, i, j) for the elements of a packed symmetric matrix of order n in their order.
template <class Use>
void eachelement(int n, Use use) {
  int e = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) use(e++, i, j);
}

// Sorts the n doubles of a in ascending order, in at most O(n log n) steps. NaNs leave the order undefined.
void sortdoubles(double* a, std::ptrdiff_t n);

// The convergence count of adaptive quadrature at the log-likelihood s: the number of the n gradient entries g[i] with
//   |g[i]| / sqrt(max(|h[i][i]|, 1) max(|-2 s|, 1)) >= 0.0001,   h n by n.
[[nodiscard]] int countsignificant(int n, double s, const double* h, const double* g);

}  // namespace kdr
