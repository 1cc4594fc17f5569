// The terms of the sixth order of a Laplace approximation of a Bernoulli outcome with logit link, in the coordinates of
// the quadrature: what they add to the log-likelihood of a level-3 unit, and how they move with eta and with the rows
// b_i = (B'e_i; A'd_i). Formulas: docs/numerics.md, "Laplace-6" and "Quadrature whose nodes go with the data".
//
// With A_il = b_i'H^-1 b_l, a_i = A_ii and the cumulants k3 to k7 at the modes,
//   S = sum_i [k4_i a_i^2/8 + k6_i a_i^3/48] - 5/24 sum_j sum_(i, l in j) k3_i k3_l a_i a_l A_il
// and log(1 - S) is added. Over the predictors x~ of a level-2 unit A_il = x~_i'A_j x~_l, and b_l'H^-1 b_i = x~_l'L_m
// C3 L_j'x~_i for l in another unit m, so that every sum over l is a moment that is taken once.
#pragma once

#include <vector>

#include "core/results.h"
#include "estimate/quadrature/spherical.h"
#include "kernel/array.h"

namespace kdr {

// The rows of each level-2 unit j through the inverse H^-1 of the curvature: with V_j, npi by all effects of the
// level-3 unit, such that b_i = V_j'x~_i,
//   left2 = the columns of V_j H^-1 at z_j (npi by q)    left3 = those at w (npi by r)
//   A_j = V_j H^-1 V_j' (npi squared)
struct CurvatureRows {
  Array<double> cD;                  // npi by q: Sd A
  Array<double> E;                   // units by npi by r: Se B
  Array<double> L;                   // units by npi by r: E + cD slope
  Array<double> left2, left3, form;  // units by their sizes; form: A_j
};
void makecurvaturerows(const Frame& frame, const SphericalPoint& point, std::size_t units, const ModeWork& work,
                       CurvatureRows& rows);

// What the sixth order adds.
struct SixthOrder {
  double share = 0.0;    // log(1 - S)
  Array<double> byeta;   // units by npi: sum_i x~_i times the derivative of log(1 - S) by eta_i, modes and rows b held
  Array<double> N;       // units by npi squared: D (sum_i F_i x~x~' + 5/24 omega omega'), D = 1/(1 - S)
  Array<double> U2, U3;  // units by npi by q, and by r: 2 D V_j H^-1 (sum_m V_m'N_m V_m) H^-1 at z_j and at w
  Array<double> x, mu, k2, a, b, room;
};
// At the modes z and w, of which `work` holds the rest. False where 1 - S is not above 0.
[[nodiscard]] bool makesixthorder(const Frame& frame, const Level3Records& records, const double* z, const double* w,
                                  const ModeWork& work, const CurvatureRows& rows, SixthOrder& sixth);

// What a report of Laplace-6 shows besides estimates and errors: mean reliabilities
//   taupi_aa / (V + taupi)_aa,      V = (sum_i W_i d_i d_i')^-1 of a level-2 unit
//   taubeta_aa / (V + taubeta)_aa,  V = inverse of the information of a level-3 unit on its effects but for their prior
// over the units that have a V, how many they are, the modes of u and v, and how much the sixth order says.
struct LaplaceFindings {
  Reliabilities reliabilities;
  Array<double> u, v;    // J2 by q, J3 by r
  double largest = 0.0;  // absolute value of log(1 - S) of a level-3 unit
};
// At the last accepted point of an ascent on the approximation. Reads the data once; where they break off, their source
// says so.
[[nodiscard]] LaplaceFindings laplacefindings(SphericalLikelihood& likelihood);

}  // namespace kdr
