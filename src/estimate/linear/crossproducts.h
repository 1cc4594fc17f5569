// A'A, A'Y and Y'Y of the records of one level-2 unit, whoever makes the rows (A, Y).
#pragma once

#include <algorithm>
#include <cstddef>
#include <type_traits>

#include "kernel/array.h"
#include "kernel/sizes.h"

namespace kdr {

// The lower triangle of the sum of x x' over `records` records into AA, n squared. row(n, i, x) writes the n values of
// record i to x; its n is the order, as a constant of the compiler where it can be. x: a buffer of n.
template <class Row>
void anycrossproducts(int n, int records, double* AA, double* x, Row row) {
  std::fill_n(AA, square(n), 0.0);
  for (int i = 0; i < records; ++i) {
    row(n, i, x);
    for (int c = 0; c < n; ++c)
      for (int d = 0; d <= c; ++d) AA[c * n + d] += x[c] * x[d];
  }
}

// The same for n = N columns, with the sums in registers: a row of them two by two, so that one above the triangle may
// be formed too.
template <int N, class Row>
void fixedcrossproducts(int records, double* AA, Row row) {
  using Pair = double __attribute__((vector_size(16)));
  constexpr int pairs = (N + 1) / 2;
  Pair sums[N][pairs] = {};
  for (int i = 0; i < records; ++i) {
    double x[2 * pairs] = {};
    row(std::integral_constant<int, N>{}, i, x);
    for (int c = 0; c < N; ++c)
      for (int d = 0; d <= c / 2; ++d) sums[c][d] += Pair{x[c], x[c]} * Pair{x[2 * d], x[2 * d + 1]};
  }
  for (int c = 0; c < N; ++c)
    for (int d = 0; d <= c; ++d) AA[c * N + d] = sums[c][d / 2][d % 2];
}

template <class Row>
void crossproducts(int n, int records, double* AA, double* x, Row row) {
  switch (n) {
    case 2:
      return fixedcrossproducts<2>(records, AA, row);
    case 3:
      return fixedcrossproducts<3>(records, AA, row);
    case 4:
      return fixedcrossproducts<4>(records, AA, row);
    case 5:
      return fixedcrossproducts<5>(records, AA, row);
    case 6:
      return fixedcrossproducts<6>(records, AA, row);
    default:
      return anycrossproducts(n, records, AA, x, row);
  }
}

// x times the factor of its record and, in a run with design weights, the products of the rows with their factor once
// more into AA2: both of n columns.
inline void applyfactor(int n, double factor, bool weighted, double* x, Array<double>& AA2) {
  for (int c = 0; c < n; ++c) x[c] *= factor;
  if (!weighted) return;
  for (int c = 0; c < n; ++c)
    for (int d = 0; d <= c; ++d) AA2[at(c * n + d)] += factor * factor * x[c] * x[d];
}

}  // namespace kdr
