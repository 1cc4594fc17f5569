// Reliabilities of the random coefficients, and tests of their variances.
#pragma once

#include <span>

#include "core/results.h"
#include "core/tables.h"

namespace kdr {

// Writes the n reliabilities of the coefficients random at a level: those of tau(pi), or of tau(beta).
void reliabilitytable(Tau which, int n, const double* values);

// Writes the variances on the diagonal of a tau with their chi-square tests, one for each. The table of tau(pi) ends
// with the level-1 variance, unless it is fixed.
void variancetable(Tau which, const Array<double>& tau, std::span<const VarianceTest> tests, double sigma2);

// The note that `what` rests on `used` of `total` units.
void partialdatanote(const char* what, int used, int total);

}  // namespace kdr
