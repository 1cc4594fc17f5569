// The Gaussian likelihood of the data without their random effects, and its restricted form, in sums over units: value,
// score, information, and what small-sample covariances and degrees of freedom are made of. Nothing here inverts a tau,
// so that a singular one, or one of zeros, is a point like any other; and no pair of units is formed.
//
// With V = cov(Y) at theta = (lower triangle of taupi by rows, that of taubeta, sigma2), V_i = dV / dtheta_i and
// D = [r | M], r = Y - M gamma (pass.h has the other symbols):
//   t_i  = tr(V^-1 V_i)            P_i  = D'V^-1 V_i V^-1 D
//   T_ij = tr(V^-1 V_i V^-1 V_j)   Q_ij = D'V^-1 V_i V^-1 V_j V^-1 D
// Derived in docs/numerics.md, "Restricted likelihood".
#pragma once

#include <functional>

#include "estimate/linear/pass.h"
#include "estimate/linear/recordstream.h"
#include "kernel/array.h"
#include "kernel/sizes.h"

namespace kdr {

// What is made of the sums of a pass once, before any theta. With S_A = Z1'[Y | B] of a level-2 unit, beta = S_AA^+ S_A
// are its least-squares coefficients, and [Y | B]'[Y | B] - S_A' beta summed over the units of k what they leave.
struct MarginalSums {
  RecordStream coefficients;   // per level-2 unit beta' (1 + nbeta by p), Y first
  UnitTable<double> residual;  // per level-3 unit (1 + nbeta) squared
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
[[nodiscard]] MarginalValue marginalvalue(Pass& pass, MarginalSums& sums, const Estimates& theta);

// Derivatives at a point, with the value there. NT elements of theta; matrices NT squared.
struct MarginalDerivatives {
  Array<double> score;     // [NT]
  Array<double> average;   // the average information, 1/2 y'P V_i P V_j P y with P = V^-1 - V^-1 M covariance M'V^-1
  Array<double> expected;  // the expected information
  // For each element, and for each pair (i, j), j <= i, in packed order: the blocks of M, g squared.
  UnitTable<double> P, Q;
};
// What is asked for: score and average information, or all.
enum class Derivatives { step, all };
[[nodiscard]] MarginalDerivatives marginalderivatives(Pass& pass, MarginalSums& sums, const Estimates& theta,
                                                      const MarginalValue& value, Criterion criterion,
                                                      Derivatives wanted);

// Value, score and average information by one sweep. The average information is taken at the fixed effects of `theta`,
// with which it grows, unless they are more than a standard error from the best ones: then by a sweep more at these.
struct MarginalStep {
  MarginalValue value;
  Array<double> score, average;  // [NT], NT squared
};
[[nodiscard]] MarginalStep marginalstep(Pass& pass, MarginalSums& sums, const Estimates& theta, Criterion criterion);

// A form in [r | M] of one level-3 unit or of all.
struct LevelForm {
  double rr = 0.0;
  Array<double> xr, xx;  // [g], g squared
  explicit LevelForm(int g) : xr(at(g)), xx(square(g)) {}
};
// Calls use(k, form) with the form of V_k^-1 at theta for each level-3 unit, r at the fixed effects gamma.
void eachlevel3form(Pass& pass, MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                    const std::function<void(int k, const LevelForm& form)>& use);

// Number of elements of theta.
[[nodiscard]] inline int variancecount(const Pass& pass) {
  return pass.p * (pass.p + 1) / 2 + pass.b * (pass.b + 1) / 2 + 1;
}

}  // namespace kdr
