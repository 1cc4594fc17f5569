// The averages of a series of sub-runs.
#pragma once

#include <optional>

#include "core/results.h"
#include "kernel/array.h"

namespace kdr {

// Pooled fixed effects under one kind of covariance.
struct PooledCovariance {
  bool known = false;        // the rest is empty otherwise
  Array<double> covariance;  // g squared: within plus between
  EffectTable effects;       // the fixed effects by it
};

struct PooledEffects {
  Array<double> gamma;  // [g]
  PooledCovariance model;
  PooledCovariance robust;  // not known when a single sub-run has no robust matrix
};

struct Pooled {
  int M = 0;                                      // sub-runs
  std::optional<PassKind> engine = std::nullopt;  // whose estimates they are; none: those of the passes
  double sigma2 = 0.0;
  bool sigma2fixed = false;      // it is held
  Array<double> taupi, taubeta;  // q squared, r squared
  // Standard errors of sigma2 and the taus. `zerovar` counts sub-runs whose variance of sigma2, or, where sigma2 is
  // held, the whole covariance of the taus, is exactly 0.0; with one of them, or without shape.fisher, no errors are
  // known.
  bool errorsknown = false;
  int zerovar = 0;
  double sigma2error = 0.0;
  Array<double> taucovariance;               // tauorder squared
  Array<double> taupierrors, taubetaerrors;  // full matrices; absent for a negative variance
  Array<double> reliability2, reliability3;  // [q], [r]
  int units2 = 0, units3 = 0;                // mean usable units of the reliabilities, a fraction dropped
  VarianceTests tests;                       // their units are means, too; none of an engine
  PooledEffects effects;
  PooledEffects popaverage;  // with shape.popaverage
};

}  // namespace kdr
