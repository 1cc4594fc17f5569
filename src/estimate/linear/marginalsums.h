// The Gaussian likelihood of the data without their random effects, and its restricted form, in sums over units.
// Nothing here inverts a tau, so that a singular one, or one of zeros, is a point like any other; and no pair of units
// is formed. The value at a point: marginalvalue.h; score and information: marginalderivatives.h.
//
// V = cov(Y) at theta = (lower triangle of taupi by rows, that of taubeta, sigma2), r = Y - M gamma; pass.h has the
// other symbols. Derived in docs/numerics.md, "Restricted likelihood".
#pragma once

#include "estimate/linear/pass.h"
#include "estimate/linear/recordstream.h"
#include "kernel/array.h"
#include "kernel/sizes.h"

namespace kdr {

// Columns of the units: Y (or r) first, then those of B.
inline constexpr int firstB = 1;

// What is made of a pass once, before any theta, and all that the likelihood needs of the data. With S_A = Z1'[Y | B]
// of a level-2 unit, beta = S_AA^+ S_A are its least-squares coefficients, and [Y | B]'[Y | B] - S_A' beta summed over
// the units of k what they leave. The columns of Z2, the first b of B, have their scale in a weighted run
// (Pass::scale3), and what multiplies them as columns of B, W3, is divided by it.
struct MarginalSums {
  const Design* design = nullptr;  // of the pass
  int p = 0, b = 0, g = 0, nbeta = 0;
  int units2 = 0, records1 = 0;  // level-2 units, level-1 records
  Array<int> n2of;               // level-2 units of each level-3 unit
  UnitTable<double> weights;     // per level-3 unit: the numbers of W3, as level3weights gives them, over the scale
  UnitTable<double> residual;    // per level-3 unit C squared, C = 1 + nbeta
  RecordStream units;            // per level-2 unit: Z1'Z1 packed, then S_A' and beta' (C by p), Y first

  [[nodiscard]] int columns() const { return 1 + nbeta; }
  [[nodiscard]] std::size_t atproducts() const { return packedsize(p); }
  [[nodiscard]] std::size_t atcoefficients() const { return atproducts() + at(columns() * p); }
  [[nodiscard]] std::size_t recordsize() const { return atcoefficients() + at(columns() * p); }
  [[nodiscard]] int units3() const { return static_cast<int>(n2of.size()); }
  [[nodiscard]] const Failure& failure() const { return units.failure(); }
};
[[nodiscard]] Failure makemarginalsums(Pass& pass, MarginalSums& sums);

// X = S^+ (p squared), of S at a unit diagonal, whose small eigenvalues are left out.
void pseudoinverse(const double* S, int p, double* X);
// (X + X') / 2 in the place of X, order n.
void symmetrise(int n, double* X);

// A form in [r | M] of one level-3 unit or of all.
struct LevelForm {
  double rr = 0.0;
  Array<double> xr, xx;  // [g], g squared
  explicit LevelForm(int g) : xr(at(g)), xx(square(g)) {}
};
// Number of elements of theta.
[[nodiscard]] inline int variancecount(const MarginalSums& sums) {
  return static_cast<int>(packedsize(sums.p) + packedsize(sums.b)) + 1;
}
[[nodiscard]] inline int variancecount(const Pass& pass) {
  return static_cast<int>(packedsize(pass.p) + packedsize(pass.b)) + 1;
}

}  // namespace kdr
