// Rubin's rules (Rubin, 1987, Multiple Imputation for Nonresponse in Surveys): the averages of a series of sub-runs.
//
// With M sub-runs, a bar for the plain mean over them and f = (1 + 1/M) / (M - 1), the covariance of a pooled vector of
// estimates x is the mean of the sub-runs' covariances, within, plus f times the sum of (x_m - xbar)(x_m - xbar)',
// between. With a single sub-run there is nothing between: its results stand as they are.
#pragma once

#include <span>

#include "kernel/array.h"
#include "multirun/subrun.h"

namespace kdr {

// Pooled fixed effects under one kind of covariance.
struct PooledCovariance {
  bool known = false;        // the rest is empty otherwise
  Array<double> covariance;  // g squared: within plus between
  Array<double> variance;    // [g], its diagonal
  Array<int> df;             // [g]
};

struct PooledEffects {
  Array<double> gamma;  // [g]
  PooledCovariance model;
  PooledCovariance robust;  // not known when a single sub-run has no robust matrix
};

struct Pooled {
  int M = 0;  // sub-runs
  double sigma2 = 0.0;
  Array<double> taupi, taubeta;  // q squared, r squared
  // Standard errors of sigma2 and the taus. `zerovar` counts sub-runs whose variance of sigma2 is exactly 0.0; with
  // one of them, or without shape.fisher, no errors are known.
  bool errorsknown = false;
  int zerovar = 0;
  double sigma2error = 0.0;
  Array<double> taucovariance;               // tauorder squared
  Array<double> taupierrors, taubetaerrors;  // full matrices; missingcode for a negative variance
  Array<double> reliability2, reliability3;  // [q], [r]
  int units3 = 0;                            // mean usable level-3 units of the reliabilities, a fraction dropped
  int testunits2 = 0, testunits3 = 0;        // the same of the chi-square tests
  Array<double> chisq2, chisq3;              // [q], [r]
  PooledEffects effects;
  PooledEffects popaverage;  // with shape.popaverage
};

// Pools one or more records of the shape. dfgamma has the g complete-data degrees of freedom, which bound those of the
// pooled effects:
//   nu = (M - 1) (within_ii / between_ii + 1)^2,  df_i = min(trunc(nu), dfgamma_i), dfgamma_i where nu has no value.
// Failure 3.
[[nodiscard]] Pooled pool(const SubrunShape& shape, std::span<const SubrunRecord> records,
                          std::span<const int> dfgamma);

}  // namespace kdr
