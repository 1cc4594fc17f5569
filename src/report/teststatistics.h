// What the tables say of an estimate beside its value: standard error, test, interval, ratio. The report and the
// results document take them from here.
#pragma once

#include "kernel/array.h"
#include "report/degreesoffreedom.h"

namespace kdr {

// The fixed effects of a table, run.model.coef.ngamma of them.
struct FixedEffects {
  const Array<double>& gamma;     // estimates
  const Array<double>& variance;  // their variances, one each
  const FixedDegrees& degrees;    // not looked at for least squares, which takes nunits1 - ngamma
};

// One fixed effect. `tested` says whether there is a standard error with degrees of freedom to test with.
struct Estimate {
  double coefficient, se, t;  // se and t 0.0: there is no standard error
  double p;                   // 0.0 unless tested
  int df;
  bool tested, rough;  // rough: p is an approximation
};
[[nodiscard]] Estimate estimateof(const FixedEffects& effects, bool leastsquares, int g);

// A 95% interval, by the critical value of the t distribution to three decimals.
struct Interval {
  bool known = false;  // the bounds are not of use otherwise
  double low = 0.0, high = 0.0;
};
[[nodiscard]] Interval intervalof(const Estimate& estimate);

// The odds or event-rate ratio of a coefficient, with the interval of its exponent.
struct Ratio {
  double ratio = 0.0;
  Interval interval;
};
[[nodiscard]] Ratio ratioof(const Estimate& estimate);

// The p-value of a chi-square statistic. Below its degrees of freedom the report says ">.500" and p is 1.0.
struct ChiSquareTail {
  bool below = true;
  double p = 1.0;
};
[[nodiscard]] ChiSquareTail chisquaretail(int df, double statistic);

// Degrees of freedom of a variance test as an int, and whether there are enough for its statistic.
[[nodiscard]] int wholedegrees(long long degrees);
[[nodiscard]] bool variancetested(long long degrees, double chisq);

// The n variances on the diagonal of an n by n covariance matrix, each times `scale`.
[[nodiscard]] Array<double> variancesof(const Array<double>& covariance, int n, double scale = 1.0);

// The correlation that element (i, j) of a covariance matrix of order n makes; not finite beside a variance of 0.
[[nodiscard]] double correlationof(const double* matrix, int n, int i, int j);

}  // namespace kdr
