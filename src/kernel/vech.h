// The lower triangle vech X of a symmetric matrix by rows, as parameters: vec X = D vech X with the duplication matrix
// D. So D' gathers what belongs to the two copies of an element.
#pragma once

#include <cstddef>

namespace kdr {

// Element (i, j) of D' vec M, M square of order n.
inline double duplicated(const double* M, int n, int i, int j) {
  return i == j ? M[i * n + j] : M[i * n + j] + M[j * n + i];
}

// v (packed) += D' vec M.
inline void addduplicated(double* v, const double* M, int n) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) *v++ += duplicated(M, n, i, j);
}

// Element ((i, j), (k, l)) of D' (M (x) M) D: (i, j) a pair of rows of M, (k, l) one of its columns, of which it has n.
inline double duplicatedproduct(const double* M, int n, int i, int j, int k, int l) {
  const double pairs = M[i * n + k] * M[j * n + l] + M[i * n + l] * M[j * n + k];
  return (i == j ? 1.0 : 2.0) * (k == l ? 0.5 : 1.0) * pairs;
}

}  // namespace kdr
