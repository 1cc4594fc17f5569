#include "kernel/matrix.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

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

void mirror(int n, double* m) {
  for (Index i = 0; i < n; ++i)
    for (Index j = 0; j < i; ++j) m[j * n + i] = m[i * n + j];
}

void cleardiagonaloff(double* t, int n) {
  for (Index i = 0; i < n; ++i)
    for (Index j = 0; j < n; ++j)
      if (i != j) t[i * n + j] = 0.0;
}

void addtriangle(double* t, int n, const double* d, double factor) {
  for (Index i = 0; i < n; ++i)
    for (Index j = 0; j <= i; ++j, ++d) {
      t[i * n + j] += factor * *d;
      if (i != j) t[j * n + i] += factor * *d;
    }
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
