// Reliabilities of the random coefficients, and tests of their variances.
#pragma once

namespace kdr {

// Writes the n reliabilities of the level-1 (level 1) or level-2 (level 2) coefficients.
void reliabilitytable(int n, const double* values, int level);

// Writes the variances on the diagonal of the n by n `matrix` with chi-square tests: taupi and the level-1 variance for
// level 1, taubeta for level 2. Row i has units - nterms[i] * mult - nextra[i] degrees of freedom at level 1, units -
// nterms[i] at level 2, where mult and nextra (may be null) are not looked at. sigma2 is the level-1 variance.
void variancetable(int level, int n, int units, int mult, const int* nterms, const int* nextra, const double* matrix,
                   const double* chisq, double sigma2);

// The note that `what` rests on `used` of `total` units.
void partialdatanote(const char* what, int used, int total);

}  // namespace kdr
