// The sweep over the units that every step of the iteration stands on: at given variance components and fixed effects,
// the posterior moments of the random effects, the generalised cross-product and the parts of the log-likelihood.
//
// Per level-2 unit, with S = sigma2 taupi^-1:
//   C_j = Z1'Z1 + S             C_j^-1 sigma2 is the posterior covariance of u_j given v_k
//   H_j = B'Z1 C_j^-1           its first b rows, times the scale of Z2, are R_j = Z2'Z1 C_j^-1
//   u_j = C_j^-1 (Z1'Y - B'Z1' theta*)
// and per level-3 unit, with Sb = sigma2 taubeta^-1, r the first b columns and z the scale of Z2:
//   P_k = B'B - sum_j H_j Z1'B,  y_k = B'Y - sum_j H_j Z1'Y
//   D_k = z^2 P_rr + Sb,  E_k = D_k^-1
//   theta = W3 gamma,  q_k = z (y_k - P_k theta)_r,  v_k = E_k q_k,  theta* = theta + z v_k
//   V_j = C_j^-1 + R_j' E_k R_j  is the posterior covariance of u_j over sigma2
//
// Derived in docs/numerics.md, "Posterior and log-likelihood" and "EM".
#pragma once

#include <functional>

#include "estimate/linear/pass.h"
#include "estimate/linear/unitsums.h"
#include "kernel/array.h"

namespace kdr {

// Where the sweep stands.
struct PosteriorInput {
  double sigma2;
  const double* gamma;                // [g]
  const double* S;                    // p squared, sigma2 taupi^-1
  const double* Sb;                   // b squared, sigma2 taubeta^-1
  const UnitTable<double>* hettaupi;  // null, or a taupi per level-3 unit: S is then made from it unit by unit
  bool keepmeans;                     // u*, v* and q are kept
};

// The posterior of one level-3 unit.
struct Level3Posterior {
  int k = 0;
  int units = 0;           // its level-2 units
  UnitRecords records{};   // their records, for the loops
  Array<double> loopwork;  // of the loops
  double z = 1.0;          // scale of Z2
  Level2Sums sums;
  Array<double> weights;           // the numbers in W3_k
  Array<double> P, y;              // P_k, y_k
  Array<double> E;                 // b squared
  Array<double> q, v;              // [b]
  Array<double> theta, thetastar;  // [nbeta]
  Array<double> PP, UU;            // p squared: sums of V_j and of u_j u_j'
  double logdetE = 0.0;
  double logdetT = 0.0;  // of the unit's own taupi, heterogeneous stage only
  double rss = 0.0;      // residual sum of squares at the posterior means
  double Q = 0.0;        // (Y - M gamma)'(Y - M gamma - Z1 u - Z2 v)
  double trace = 0.0;    // the trace that the EM update of sigma2 adds to rss, over sigma2
};

// Sums over all level-3 units.
struct PosteriorSums {
  double logdetCinv = 0.0, logdetE = 0.0, logdetT = 0.0;
  double rss = 0.0, Q = 0.0;
  double traceacc = 0.0;      // sigma2 (tr Z'Z V): the posterior variance part of the EM update of sigma2
  Array<double> PP, UU;       // p squared: sums of V_j and u_j u_j'
  Array<double> sumDinv, VV;  // b squared: sums of E_k and v_k v_k'
  Array<double> A, c;         // g squared, [g]: the generalised cross-product M'V^-1 M and M'V^-1 Y, times sigma2
};

enum class PosteriorResult { ok, badC, badD, badT };

// Called once per level-3 unit with its posterior.
using Level3Visitor = std::function<void(const Level3Posterior& unit)>;

// One sweep. Writes C_j^-1 to the store, E_k to pass.dinv and z^2 P_rr to pass.within; with keepmeans also u*, vstar
// and vright. Anything but `ok` says which matrix could not be inverted, and the sums are then of no use.
[[nodiscard]] PosteriorResult posteriorsweep(Pass& pass, const PosteriorInput& input, PosteriorSums& sums,
                                             const Level3Visitor& visit = {});

}  // namespace kdr
