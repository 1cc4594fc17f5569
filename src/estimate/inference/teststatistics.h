// What stands beside an estimate: standard error, test, interval, ratio.
#pragma once

#include <functional>

#include "core/model.h"
#include "core/results.h"
#include "estimate/inference/smallsample.h"
#include "kernel/array.h"

namespace kdr {

// One fixed effect from its estimate, its variance (0.0 or not finite: unknown) and its degrees of freedom.
[[nodiscard]] EffectTest effecttest(double coefficient, double variance, double df, bool rough,
                                    DegreesMethod method = DegreesMethod::counts);

// The fixed effects by `scale` times a covariance (g squared), without hypothesis tests; empty when the covariance is.
[[nodiscard]] EffectTable effecttable(const Array<double>& gamma, const Array<double>& covariance,
                                      const FixedDegrees& degrees, double scale = 1.0);

// What lies between the sub-runs of a series: the covariance of gamma is then the mean of theirs, `within`, and this.
struct Between {
  const Array<double>& within;  // g squared
  const Array<double>& spread;  // (1 + 1/M) times the covariance of the sub-runs' estimates
  int M;                        // sub-runs, more than one
};

// The multivariate Wald tests of the model's hypotheses into the table, if there are any and the covariance (g squared)
// is not empty. With r contrasts C, e = C gamma and W = C covariance C' the statistic is e' W^-1 e, computed on a
// factor of W, whose rows are scaled: neither the unit of a predictor nor that of a contrast changes it.
//
// Of a series it is the pooled test of Li, Raghunathan and Rubin (1991): with U = C within C', B = C spread C',
// s = tr(B U^-1) / r, the statistic D = e' U^-1 e / (r (1 + s)) is F with r and nu degrees of freedom, with t = r (M -
// 1)
//   nu = 4 + (t - 4) (1 + (1 - 2/t) / s)^2 for t > 4, else t (1 + 1/r) (1 + 1/s)^2 / 2.
void addhypotheses(EffectTable& table, const Model& model, const Array<double>& gamma, const Array<double>& covariance,
                   const Between* between = nullptr);

// What q contrasts (rows of L) are tested by: factor e' W^-1 e / q as F with q and df degrees of freedom.
using Denominator = std::function<ScaledTest(const double* L, int q)>;
// Each test of the table becomes one of F.
void testbyF(EffectTable& table, const Denominator& denominator);

// The test of a statistic by chi-square; by F with df2 degrees of freedom of the denominator where df2 is above 0 and
// finite.
[[nodiscard]] ChiSquareTest chisquaretest(int df, double statistic, double df2 = 0.0);

// The test of a variance by a chi-square statistic: known with at least one degree of freedom.
[[nodiscard]] VarianceTest variancetest(long long degrees, double chisq);

// The correlation that element (i, j) of a covariance matrix of order n makes; not finite beside a variance of 0.
[[nodiscard]] double correlationof(const double* matrix, int n, int i, int j);

// The standard error that a variance makes: 0.0 for a variance of 0.0, which is that of a fixed element, absent
// for one that is negative or not a number.
[[nodiscard]] double standarderror(double variance);

// The standard errors of the elements of a symmetric matrix of order n, full, from the variances on the diagonal of the
// covariance (`order` squared) of all elements, of which those of the matrix's lower triangle by rows begin at `first`.
[[nodiscard]] Array<double> standarderrors(const Array<double>& covariance, int order, std::size_t first, int n);

}  // namespace kdr
