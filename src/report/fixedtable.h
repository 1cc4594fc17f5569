// The tables of the fixed effects: coefficients with their tests, and ratios with confidence intervals.
#pragma once

#include "report/degreesoffreedom.h"

namespace kdr {

// Picks the heading, and where the variances come from: a matrix whose diagonal is multiplied by `scale`, the diagonal
// as it stands (leastsquaresrobust), or a vector of n variances (the averaged kinds).
enum class TableKind {
  estimates = 1,
  robust = 2,
  leastsquares = 3,
  averagedpv = 4,
  leastsquaresrobust = 6,
  averagedrobustpv = 7,
  laplace = 10,
  averagedmi = 14,
  averagedrobustmi = 15,
  quadrature = 17
};

// Writes the table of run.coef.ngamma fixed effects: coefficient, standard error, t-ratio, degrees of freedom, p-value.
// `variance` has rows of `stride` values; the least-squares kinds take nunits1 - ngamma for the degrees of freedom.
void fixedtable(const FixedDegrees& degrees, TableKind kind, const double* variance, const double* gamma, int stride,
                double scale);

// Writes odds ratios (event-rate ratios of a Poisson run) with 95% intervals. Nothing in a linear run.
void ratiotable(const FixedDegrees& degrees, TableKind kind, const double* variance, const double* gamma, int stride,
                double scale);

}  // namespace kdr
