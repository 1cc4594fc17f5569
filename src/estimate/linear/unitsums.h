// Sums over the level-2 units of one level-3 unit. See posterior.h for the formulas.
#pragma once

#include "estimate/linear/unitloops.h"
#include "estimate/linear/unitstore.h"
#include "kernel/array.h"

namespace kdr {

// Sums over the level-2 units of one level-3 unit, full matrices.
struct Level2Sums {
  Array<double> HB;    // nbeta squared, sum of H_j Z1'B
  Array<double> HY;    // [nbeta], sum of H_j Z1'Y
  Array<double> RR;    // (b p) squared, element (a p + i, c p + l): sum of H_j[a][i] H_j[c][l], a and c below b
  Array<double> Cinv;  // p squared, sum of C_j^-1
  double YCY = 0.0;    // sum of Z1'Y' C_j^-1 Z1'Y
  double logdetCinv = 0.0;
};

// The records of `units` level-2 units that begin at `hot`; b is the order of taubeta, `work` at least loopwork long.
[[nodiscard]] UnitRecords unitrecords(const UnitStore& store, double* hot, int units, int b, Array<double>& work);

// First visit: writes C_j^-1 to each record and fills `sums`, whose arrays have their sizes. Spacked is S, packed.
// False when some C_j cannot be inverted.
[[nodiscard]] bool sumunits(const UnitRecords& records, const double* Spacked, Level2Sums& sums);

// Second visit: u_j = C_j^-1 a_j with a_j = Z1'Y - B'Z1' thetastar. Returns the sum of u_j'a_j, puts the sum of u_j
// u_j' into UU (p squared) and, with `keep`, u_j into each record.
double meanunits(const UnitRecords& records, const double* thetastar, bool keep, double* UU);

}  // namespace kdr
