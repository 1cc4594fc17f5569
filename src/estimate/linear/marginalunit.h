// One level-3 unit in the sums of marginalsums.h: what its level-2 units leave, and what follows from it by way of
// V_k = W_k + Z2 taubeta Z2', W_k the part of levels 1 and 2.
#pragma once

#include "estimate/linear/marginalloops.h"
#include "estimate/linear/marginalsums.h"
#include "kernel/array.h"

namespace kdr {

// At theta: G_m = [r | B]'W^-m [r | B], and what follows from them.
struct MarginalUnit {
  const double* weights = nullptr;        // of W3_k
  Array<double> theta;                    // [nbeta] W3_k gamma
  Array<double> G1, G2, G3;               // C squared
  Array<double> C1, C2, C3, Rb, N, NC2N;  // b squared: Z2'W^-m Z2, (I + C1 Tb)^-1, Tb Rb
  Array<double> Ct, Ct2;                  // Z2'V^-m Z2
  Array<double> F, F2, TF, TF2;           // b by C: Z2'V^-m [r | B], and Tb times them
  Array<double> Y1, Y2, Y3;               // C squared: [r | B]'V^-m [r | B]
  Array<double> bC, bb, work;
  Array<double> loopwork;       // of the loops over the level-2 units
  double logdeterminant = 0.0;  // of the level-2 units and of this one, but for sigma2
  double traceR = 0.0, traceRR = 0.0;

  explicit MarginalUnit(const MarginalSums& sums);
};

// G_m without the level-2 units, r at gamma.
void beginunit(const MarginalSums& sums, int k, double sigma2, const double* gamma, MarginalUnit& unit);
// Rb, N, F, Y1, once the level-2 units are in G1.
void finishvalue(const MarginalSums& sums, const Estimates& theta, MarginalUnit& unit);
// Ct, F2, Ct2, Y2, Y3, once they are in G2 and G3 as well.
void finishderivatives(const MarginalSums& sums, const Estimates& theta, MarginalUnit& unit);

// form += D'X D of the unit, from its form in [r | B].
void addform(const MarginalSums& sums, const MarginalUnit& unit, const double* X, LevelForm& form);

}  // namespace kdr
