// Inverse and determinant of small symmetric matrices, and the tests of whether one is usable as a covariance matrix.
// Matrices are row-major with the row stride ld, symmetric ones with both triangles filled.
#pragma once

#include <cmath>

namespace kdr {

// The inverse of the symmetric n by n matrix a by bordering: it grows from the leading 1 by 1 block, row by row,
// without pivoting. Only the lower triangle of a is read, and all of it before inv is written, so inv may be a.
//   inv   n by n with the row stride ldinv, both triangles. Of no use when the result is 1.
//   work  max(3, n (n + 1) / 2) doubles. Afterwards work[0] is the determinant, work[1] the sum of the logarithms of
//         the positive pivots, work[2] 1.0 when a negative pivot was met, else 0.0.
// Returns 0 when the determinant is positive, 1 when it is 0 (some leading block is singular), 2 when it is negative.
// A product of pivots that underflows doesn't count as 0: the determinant then keeps the value that it had before.
// Allocates for orders above 32 only.
int syminverse(int n, const double* a, int ld, double* inv, int ldinv, double* work);

// The inverse of a, n by n without a stride, by syminverse with a buffer of its own; inverse may be a.
struct Inversion {
  int result;          // of syminverse
  double determinant;  // of a
  double logpivots;    // the sum of the logarithms of the positive pivots
  bool negative;       // a negative pivot was met

  // Of a positive determinant, by the pivots: their product may leave the range of a double.
  [[nodiscard]] double logdeterminant() const { return negative ? std::log(determinant) : logpivots; }
};
Inversion invertsymmetric(int n, const double* a, double* inverse);

// True when the correlation of some pair i != j is 1 or more in absolute value, or undefined because the product of
// the two variances is 0.0.
[[nodiscard]] bool hasunitcorrelation(int n, const double* a, int ld);

// True when every eigenvalue of the symmetric matrix a exceeds 1e-13/n; an order of 1 asks that the element exceeds
// 1e-35. A matrix with a NaN is not positive definite.
// cond, when not null, gets the condition number |largest / smallest eigenvalue|, or bigvalue when the smallest is 0.0
// or the eigenvalues could not be found; for an order of 1 it gets the element itself.
// Householder reduction and implicit QR with the Wilkinson shift (Golub and Van Loan, Matrix Computations, 8.3).
// Allocates for orders above 8 only.
bool ispositivedefinite(int n, const double* a, int ld, double* cond);

}  // namespace kdr
