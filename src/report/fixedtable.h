// The tables of the fixed effects: coefficients with their tests, and ratios with confidence intervals.
#pragma once

#include "kernel/array.h"
#include "report/degreesoffreedom.h"
#include "report/passresults.h"

namespace kdr {

// Picks the heading.
enum class TableKind {
  estimates,
  robust,
  leastsquares,
  leastsquaresrobust,
  averagedpv,
  averagedrobustpv,
  averagedmi,
  averagedrobustmi,
  laplace,
  quadrature
};

// The fixed effects of a table, run.coef.ngamma of them.
struct FixedEffects {
  const Array<double>& gamma;     // estimates
  const Array<double>& variance;  // their variances, one each
  const FixedDegrees& degrees;    // not looked at by the least-squares kinds, which take nunits1 - ngamma
};

// The n variances on the diagonal of an n by n covariance matrix, each times `scale`.
[[nodiscard]] Array<double> variancesof(const Array<double>& covariance, int n, double scale = 1.0);

// Writes the table: coefficient, standard error, t-ratio, degrees of freedom, p-value. `pass` is the pass that the
// estimates come from.
void fixedtable(const FixedEffects& effects, TableKind kind, PassKind pass);

// Writes odds ratios (event-rate ratios of a Poisson run) with 95% intervals. Nothing in a linear run.
void ratiotable(const FixedEffects& effects, TableKind kind);

}  // namespace kdr
