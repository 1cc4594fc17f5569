// 95% intervals of variance components from their estimates and the covariance of these: symmetric in the logarithm of
// a variance and in Fisher's z of a correlation. Derived in docs/numerics.md, "Intervals of variances".
#pragma once

#include "core/results.h"

namespace kdr {

// From the taus and sigma2, and from the errors, if they are known; p and b are the orders. What is held, at the edge,
// or without a standard error has no interval.
[[nodiscard]] VarianceIntervals varianceintervals(const Estimates& est, const TauErrors& errors, int p, int b);

}  // namespace kdr
