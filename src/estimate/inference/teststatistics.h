// What stands beside an estimate: standard error, test, interval, ratio.
#pragma once

#include "core/model.h"
#include "core/results.h"
#include "kernel/array.h"

namespace kdr {

// One fixed effect from its estimate, its variance (0.0 or not finite: unknown) and its degrees of freedom.
[[nodiscard]] EffectTest effecttest(double coefficient, double variance, int df, bool rough);

// The fixed effects by `scale` times a covariance (g squared), without hypothesis tests; empty when the covariance is.
[[nodiscard]] EffectTable effecttable(const Array<double>& gamma, const Array<double>& covariance,
                                      const FixedDegrees& degrees, double scale = 1.0);

// The multivariate Wald tests of the model's hypotheses into the table, if there are any and the covariance (g squared)
// is not empty. Failure 3.
void addhypotheses(EffectTable& table, const Model& model, const Array<double>& gamma, const Array<double>& covariance);

// The p-value of a chi-square statistic.
[[nodiscard]] ChiSquareTail chisquaretail(int df, double statistic);

// The test of a variance by a chi-square statistic: known with at least one degree of freedom.
[[nodiscard]] VarianceTest variancetest(long long degrees, double chisq);

// The correlation that element (i, j) of a covariance matrix of order n makes; not finite beside a variance of 0.
[[nodiscard]] double correlationof(const double* matrix, int n, int i, int j);

// The standard error that a variance makes: 0.0 for a variance of 0.0, which is that of a fixed element, missingcode
// for one that is negative or not a number.
[[nodiscard]] double standarderror(double variance);

// The standard errors of the elements of a symmetric matrix of order n, full, from the variances on the diagonal of the
// covariance (`order` squared) of all elements, of which those of the matrix's lower triangle by rows begin at `first`.
[[nodiscard]] Array<double> standarderrors(const Array<double>& covariance, int order, std::size_t first, int n);

}  // namespace kdr
