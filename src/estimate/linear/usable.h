// Whether a symmetric matrix can be used for what comes next. One rule for each use, each with its reason; all build on
// the inverse and the tests of kernel/decompositions.h. Matrices are n by n, full. Every rule is about the matrix
// brought to a unit diagonal, so none depends on the units in which a variable is measured.
#pragma once

namespace kdr {

// A covariance that an estimate can stand on: no negative variance, no correlation of 1, its correlations positive
// definite. Not inverted: for results that are shown as they are (the robust covariance), and for inverses that are at
// hand already.
[[nodiscard]] bool positivecovariance(const double* m, int n);

// A covariance matrix that the iterations can go on from: positivecovariance, and its inverse is the inverse of a
// positive determinant. `inverse` gets it.
[[nodiscard]] bool invertcovariance(const double* m, int n, double* inverse);
[[nodiscard]] bool usablecovariance(const double* m, int n);

// A unit's cross-product that its own least-squares fit can stand on: invertcovariance, and a condition number of at
// most `worst`, as it is or brought to a unit diagonal, so that the unit's estimates have digits left to enter moments
// and tests. An order of 1 has no condition.
[[nodiscard]] bool invertcrossproduct(const double* m, int n, double* inverse, double worst);
// The limit for level-2 units; level 3 takes it times the order.
inline constexpr double worstunitcondition = 1.0e7;

// True when some fixed effect is a combination of the others to within rounding: the gram matrix is no covariance, or,
// brought to a unit diagonal, so ill-conditioned that its inverse would not have four digits left.
[[nodiscard]] bool collinear(const double* gram, int n);

}  // namespace kdr
