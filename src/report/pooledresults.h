// The averages of a series of sub-runs, as the report shows them.
#pragma once

#include "kernel/array.h"

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
  // Standard errors of sigma2 and the taus. `zerovar` counts sub-runs whose variance of sigma2, or, where sigma2 is
  // held, the whole covariance of the taus, is exactly 0.0; with one of them, or without shape.fisher, no errors are
  // known.
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

}  // namespace kdr
