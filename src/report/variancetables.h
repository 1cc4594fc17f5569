// Reliabilities of the random coefficients, and tests of their variances.
#pragma once

#include "core/tables.h"

namespace kdr {

// Writes the n reliabilities of the coefficients random at a level: those of tau(pi), or of tau(beta).
void reliabilitytable(Tau which, int n, const double* values);

// Writes the variances on the diagonal of a tau (order n) with chi-square tests, n statistics and degrees of freedom
// (below 1: too few to compute). The table of tau(pi) ends with the level-1 variance, unless it is fixed.
struct VarianceRows {
  int n;
  const double* tau;
  const double* chisq;
  const long long* df;
  double sigma2;
};
void variancetable(Tau which, const VarianceRows& rows);

// The note that `what` rests on `used` of `total` units.
void partialdatanote(const char* what, int used, int total);

}  // namespace kdr
