// Multivariate Wald tests of contrasts among the fixed effects.
#pragma once

namespace kdr {

// Writes one test for each hypothesis of run.model: its contrasts, their estimates and standard errors, and the
// chi-square statistic, or the words that it cannot be computed. `gamma` has n values, `vgamma` is their covariance
// matrix with rows of `stride` values; the contrast rows have n values each. Failure 3.
void hypothesistest(int n, const double* gamma, const double* vgamma, int stride);

}  // namespace kdr
