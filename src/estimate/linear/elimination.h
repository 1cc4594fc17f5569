// The inverse of s I + S T, with S and T symmetric and non-negative, T singular or not.
#pragma once

namespace kdr {

// R (n squared, not symmetric) = (s I + S T)^-1. Returns its n pivots, whose product has the size of the determinant of
// s I + S T; they stand in `work`, 2 n squared + n. Rows are pivoted at the scale that gives S a unit diagonal, so that
// no unit of measurement chooses.
const double* eliminate(int n, double s, const double* S, const double* T, double* R, double* work);

}  // namespace kdr
