// Eigenvalues and Cholesky factors of small symmetric matrices, row-major without a stride, both triangles filled.
#pragma once

#include <cstddef>

#include "kernel/array.h"

namespace kdr {

// A = Q diag(l) Q' with l ascending, by cyclic Jacobi rotations (Golub and Van Loan, Matrix Computations, 8.5): small
// eigenvalues of a matrix with a unit diagonal are as exact as large ones. Column i of Q, n by n, belongs to l[i].
void spectrum(std::size_t n, const double* A, double* values, double* Q);

// L = the lower Cholesky factor of A, its upper triangle zero. False at a pivot that is not above 0 or not finite.
[[nodiscard]] bool choleskyfactor(std::size_t n, const double* A, double* L);

// L (n squared) with L L' = S for a non-negative S. A pivot that is not above `rounding` of its own diagonal element
// makes its column 0, so that no unit matters. The rank comes back.
int lowerroot(const double* S, int n, double rounding, double* L);

// X = L^-1, both lower triangular, upper triangles zero. L has a diagonal without a zero. X may not be L.
void invertlower(std::size_t n, const double* L, double* X);

// A^-1 from the inverse X of its Cholesky factor: X'X.
void inversefromfactor(std::size_t n, const double* X, double* inverse);

}  // namespace kdr
