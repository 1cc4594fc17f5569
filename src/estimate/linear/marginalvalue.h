// The likelihoods of marginalsums.h at a point. Score and information: marginalderivatives.h.
#pragma once

#include <functional>

#include "estimate/linear/marginalsums.h"

namespace kdr {

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

// Calls use(k, form) with the form of V_k^-1 at theta for each level-3 unit, r at the fixed effects gamma.
void eachlevel3form(MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                    const std::function<void(int k, const LevelForm& form)>& use);

// The value at theta from the form of V^-1, r at the fixed effects of theta, and from the logarithms of the
// determinants but for those of s I; `change` (g) receives what the best fixed effects differ by.
[[nodiscard]] MarginalValue marginalvalueof(const MarginalSums& sums, const Estimates& theta, const LevelForm& total,
                                            double logdeterminants, Array<double>& change);

}  // namespace kdr
