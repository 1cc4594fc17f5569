// The Gaussian likelihood of the data without their random effects, and its restricted form, in sums over units.
// Nothing here inverts a tau, so that a singular one, or one of zeros, is a point like any other; and no pair of units
// is formed. Score and information: marginalderivatives.h.
//
// V = cov(Y) at theta = (lower triangle of taupi by rows, that of taubeta, sigma2), r = Y - M gamma; pass.h has the
// other symbols. Derived in docs/numerics.md, "Restricted likelihood".
#pragma once

#include <functional>

#include "estimate/linear/pass.h"
#include "estimate/linear/recordstream.h"
#include "kernel/array.h"
#include "kernel/sizes.h"

namespace kdr {

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

// Which likelihood.
enum class Criterion { full, restricted };

// The value at a point of theta. gamma are the fixed effects that are best there, and `covariance`, g squared, is
// (M'V^-1 M)^-1.
struct MarginalValue {
  bool known = false;  // sigma2 is above 0 and M'V^-1 M has an inverse; the rest is of no use otherwise
  double loglik = 0.0, restricted = 0.0;
  Array<double> gamma, covariance;
  [[nodiscard]] double of(Criterion criterion) const { return criterion == Criterion::full ? loglik : restricted; }
};
[[nodiscard]] MarginalValue marginalvalue(MarginalSums& sums, const Estimates& theta);

// A form in [r | M] of one level-3 unit or of all.
struct LevelForm {
  double rr = 0.0;
  Array<double> xr, xx;  // [g], g squared
  explicit LevelForm(int g) : xr(at(g)), xx(square(g)) {}
};
// Calls use(k, form) with the form of V_k^-1 at theta for each level-3 unit, r at the fixed effects gamma.
void eachlevel3form(MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                    const std::function<void(int k, const LevelForm& form)>& use);

// The value at theta from the form of V^-1, r at the fixed effects of theta, and from the logarithms of the
// determinants but for those of s I; `change` (g) receives what the best fixed effects differ by.
[[nodiscard]] MarginalValue marginalvalueof(const MarginalSums& sums, const Estimates& theta, const LevelForm& total,
                                            double logdeterminants, Array<double>& change);

// Number of elements of theta.
[[nodiscard]] inline int variancecount(const MarginalSums& sums) {
  return static_cast<int>(packedsize(sums.p) + packedsize(sums.b)) + 1;
}
[[nodiscard]] inline int variancecount(const Pass& pass) {
  return static_cast<int>(packedsize(pass.p) + packedsize(pass.b)) + 1;
}

}  // namespace kdr
