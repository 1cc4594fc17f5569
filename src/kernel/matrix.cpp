#include "kernel/matrix.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

#include "kernel/constants.h"

namespace kdr {

namespace {

using Index = std::ptrdiff_t;

// Hoare partition on the first element: afterwards no entry of [0, result) exceeds an entry of [result, n).
// Both parts have at least one entry, for n of 2 or more.
Index partition(double* a, Index n) {
  const double pivot = a[0];
  Index i = -1, j = n;
  for (;;) {
    do ++i;
    while (a[i] < pivot);
    do --j;
    while (a[j] > pivot);
    if (i >= j) return j + 1;
    std::swap(a[i], a[j]);
  }
}

// Recursion on the lower part and a loop on the upper. A first element that keeps being an extreme one, as in sorted
// or reversed input, uses up `budget`; the part that remains is then sorted by a heap, so that neither the time nor
// the depth of the recursion can run away.
void quicksort(double* a, Index n, int budget) {
  while (n > 1) {
    if (std::all_of(a + 1, a + n, [first = a[0]](double x) { return x == first; })) return;
    if (budget-- == 0) {
      std::make_heap(a, a + n);
      std::sort_heap(a, a + n);
      return;
    }
    const Index lower = partition(a, n);
    quicksort(a, lower, budget);
    a += lower;
    n -= lower;
  }
}

}  // namespace

void matadd(double* dest, const double* a, const double* b, int rows, int cols) {
  const Index size = static_cast<Index>(rows) * cols;
  for (Index i = 0; i < size; ++i) dest[i] = a[i] + b[i];
}

void matsub(double* dest, const double* a, const double* b, int rows, int cols) {
  const Index size = static_cast<Index>(rows) * cols;
  for (Index i = 0; i < size; ++i) dest[i] = a[i] - b[i];
}

void scale(double* m, int rows, int cols, int ld, double s) {
  for (int i = 0; i < rows; ++i, m += ld)
    for (int j = 0; j < cols; ++j) m[j] *= s;
}

double trace(const double* m, int n, int ld) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += m[static_cast<Index>(i) * ld + i];
  return sum;
}

void transpose(double* dest, const double* src, int rows, int cols) {
  for (Index i = 0; i < rows; ++i)
    for (Index j = 0; j < cols; ++j) dest[j * rows + i] = src[i * cols + j];
}

void zerofill(double* m, int rows, int cols) { std::fill_n(m, static_cast<Index>(rows) * cols, 0.0); }

void copyblock(double* dest, std::size_t slot, const double* src, int rows, int cols, int ldsrc, int lddest) {
  dest += static_cast<Index>(slot) * rows * lddest;
  for (int i = 0; i < rows; ++i, src += ldsrc, dest += lddest) std::copy_n(src, cols, dest);
}

void kronecker(double* dest, int ld, const double* a, int ra, int ca, const double* b, int rb, int cb) {
  for (Index i = 0; i < ra; ++i)
    for (Index r = 0; r < rb; ++r) {
      double* to = dest + (i * rb + r) * ld;
      for (Index c = 0; c < ca; ++c)
        for (Index s = 0; s < cb; ++s) *to++ = a[i * ca + c] * b[r * cb + s];
    }
}

void dropcolumn(double* m, int ld, int rows, int width, int col) {
  for (Index i = 0; i < rows; ++i) std::copy(m + i * ld + col + 1, m + i * ld + width, m + i * ld + col);
  if (rows > 0) m[static_cast<Index>(rows - 1) * ld + width - 1] = 0.0;
}

void droprow(double* m, int rows, int cols, int row) {
  std::copy(m + static_cast<Index>(row + 1) * cols, m + static_cast<Index>(rows) * cols,
            m + static_cast<Index>(row) * cols);
}

void addtransposed(double* dest, const double* arg, int n) {
  for (Index i = 0; i < n; ++i)
    for (Index j = 0; j < n; ++j) dest[i * n + j] += arg[j * n + i];
}

void initminmax(double* min, double* max, double* mean, int n) {
  std::fill_n(min, n, bigvalue);
  std::fill_n(max, n, missingcode);
  std::fill_n(mean, n, 0.0);
}

void sortdoubles(double* a, std::ptrdiff_t n) {
  if (n > 1) quicksort(a, n, 2 * static_cast<int>(std::bit_width(static_cast<std::size_t>(n))));
}

int countsignificant(int n, double s, const double* h, const double* g) {
  const double likelihood = std::max(std::fabs(-2.0 * s), 1.0);
  int count = 0;
  for (Index i = 0; i < n; ++i) {
    const double curvature = std::max(std::fabs(h[i * n + i]), 1.0);
    if (std::fabs(g[i] / std::sqrt(curvature * likelihood)) >= 0.0001) ++count;
  }
  return count;
}

}  // namespace kdr
