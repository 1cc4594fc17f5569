// Multivariate Wald tests of contrasts among the fixed effects.
#pragma once

#include <vector>

#include "kernel/array.h"

namespace kdr {

// The test of one hypothesis: r contrast rows of n values, tightly stored in run.model.contrasts.
struct WaldTest {
  int number = 0;  // from 0
  int r = 0, n = 0;
  const double* C = nullptr;
  bool computed = false;  // the contrasts are independent; estimates, errors and statistic are of no use otherwise
  Array<double> estimates, errors;  // [r]
  double statistic = 0.0;           // chi-square with r degrees of freedom
};

// The tests of all hypotheses of run.model; none when a hypothesis has more contrasts than there are fixed effects.
// `gamma` has n values, `vgamma` is their covariance matrix with rows of `stride` values. Failure 3.
[[nodiscard]] std::vector<WaldTest> waldtests(int n, const double* gamma, const double* vgamma, int stride);

// Writes one test for each hypothesis of run.model: its contrasts, their estimates and standard errors, and the
// chi-square statistic, or the words that it cannot be computed. Arguments as above.
void hypothesistest(int n, const double* gamma, const double* vgamma, int stride);

}  // namespace kdr
