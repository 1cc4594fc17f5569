// The likelihood of a Bernoulli model under the sixth-order Laplace approximation, and its score, one level-3 unit at a
// time. Its derivation is that of docs/numerics.md, "Laplace-6".
//
// At the modes, for records i and l of level-2 unit j of level-3 unit k, with e*_i = e_i - Q_j d_i:
//   A_il = e*_i' C3_k e*_l + d_i' C2_j d_l,  a_i = A_ii     posterior covariance of the linear predictors
//   A_il = e*_i' C3_k e*_l                                  for l in another level-2 unit of k
//   S_k  = sum_i [k4_i a_i^2 / 8 + k6_i a_i^3 / 48] - (5/24) sum_j sum_il k3_i k3_l a_i a_l A_il,  i and l in j
//   L_k  = ... + sum_i [y_i eta_i + log(1 - mu_i)] + log(1 - S_k)
//
// With the random columns x_i (c of them) of a record, A_il = x_i' A_j x_l: every sum over l is a moment taken once.
#pragma once

#include "estimate/laplace/laplacemodes.h"

namespace kdr {

// Sums of a level-3 unit at the modes.
struct UnitLikelihood {
  double loglik = 0.0;  // sum_i [y_i eta_i + log(1 - mu_i)]
  double S = 0.0;       // S_k
};

// Shares of a level-3 unit in the reliabilities: sums over its level-2 units j, and for itself, of
//   taupi_aa / (V + taupi)_aa,      V = (sum_i w_i d_i d_i')^-1
//   taubeta_aa / (V + taubeta)_aa,  V = (H3 - taubeta^-1)^-1
// and how many units were fit for it.
struct UnitReliability {
  double* level2 = nullptr;  // [q]
  double* level3 = nullptr;  // [r]
  int count2 = 0, count3 = 0;
};

// Work space of one thread, made for the orders q, r and c. The arrays per record and per unit grow with the largest
// level-3 unit that it meets.
struct ScoreWork {
  RandomColumns columns;
  Array<double> theta, coefficients;  // of levels 2 and 1
  Array<double> x;                    // random columns of the records, unless they are all columns
  Array<double> mu, k2, a, b;         // per record; b_i gives way to the weight p_i of the record in the score
  Array<double> L, A, N;              // per level-2 unit: r by c, c squared, c squared
  Array<double> rho, cp;              // per level-2 unit: [q]
  Array<double> form, h, Sxx;         // of the unit at hand: c squared; h is also used as [c]
  Array<double> omega, Sxr, xi;       // [c], [c], [npi]
  Array<double> W, G, M2, Y;          // of the level-3 unit: r squared, q squared, q squared, q squared
  Array<double> bsum, g, pe, z;       // [nbeta], [r], [r], [r]
  Array<double> rc, rc2, rc3, rr, rr2, rr3, rr4, qr, qr2, qq, qq2;  // products of those shapes
  Array<double> inverse;
};
[[nodiscard]] ScoreWork makescorework(const EngineData& data, int q, int r);

[[nodiscard]] UnitLikelihood unitlikelihood(const EngineData& data, const Parameters& parameters,
                                            const LaplaceModes& modes, const Level3Records& unit, ScoreWork& work);

// score (P) = the derivatives of the log-likelihood of unit k by the parameters, modes moving along; and its share in
// the reliabilities. False when 1 - S_k is not above 0: the score then leaves log(1 - S_k) out.
bool unitscore(const EngineData& data, const Parameters& parameters, const TauInverses& inverses,
               const LaplaceModes& modes, const Level3Records& unit, ScoreWork& work, double* score,
               UnitReliability& reliability);

}  // namespace kdr
