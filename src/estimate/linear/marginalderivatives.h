// Score and information of the likelihoods of marginalsums.h, and what small-sample covariances and degrees of freedom
// are made of. With V_i = dV / dtheta_i and D = [r | M]:
//   t_i  = tr(V^-1 V_i)            P_i  = D'V^-1 V_i V^-1 D
//   T_ij = tr(V^-1 V_i V^-1 V_j)   Q_ij = D'V^-1 V_i V^-1 V_j V^-1 D
// Derived in docs/numerics.md, "Restricted likelihood".
#pragma once

#include <optional>

#include "estimate/linear/marginalvalue.h"

namespace kdr {

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
[[nodiscard]] MarginalDerivatives marginalderivatives(MarginalSums& sums, const Estimates& theta,
                                                      const MarginalValue& value, Criterion criterion,
                                                      Derivatives wanted);

// A fixed effect that stands at a value.
struct HeldEffect {
  int effect = 0;
  double level = 0.0;
};

// Value, score and average information by one sweep. The average information is taken at the fixed effects of `theta`,
// with which it grows, unless they are more than a standard error from the best ones: then by a sweep more at these.
// With a held effect the best ones are those beside it, and all belongs to the likelihood under it (Criterion::full).
struct MarginalStep {
  MarginalValue value;
  Array<double> score, average;  // [NT], NT squared
};
[[nodiscard]] MarginalStep marginalstep(MarginalSums& sums, const Estimates& theta, Criterion criterion,
                                        const std::optional<HeldEffect>& held = {});

}  // namespace kdr
