// Laplace-6 of AGQNODES:FIXED: the sixth-order Laplace approximation of a three-level Bernoulli model with logit link,
// maximised by scoring steps on the outer products of the scores of the level-3 units (ridgedascent.h).
//
// Use: fill EngineData, call runlaplace with the estimates and the residuals that they go with, and take the estimates
// from the result when it has not `failed`.
#pragma once

#include "estimate/ascent/ridgedascent.h"
#include "estimate/laplace/laplacemodes.h"
#include "estimate/laplace/laplacescore.h"

namespace kdr {

// The likelihood as a function of a point: the elements of the parameters in their order.
struct LaplaceLikelihood {
  const EngineData& data;
  const LaplaceSettings& settings;
  int q = 0, r = 0, g = 0;
  Array<double> u{}, v{};                       // modes of the current point: every search for others starts from them
  LaplaceModes modes{};                         // of the point that was evaluated last
  bool stopped = false;                         // the user ended the iterations
  EngineFailure failure = EngineFailure::none;  // of the last evaluation

  // Of the last evaluation with score: reliabilities, means over nrel2 level-2 and nrel3 level-3 units.
  Array<double> rel2{}, rel3{};
  int nrel2 = 0, nrel3 = 0;
};

// The likelihood of the data, for parameters of the shape of `start`, whose modes are u (J2 by q) and v (J3 by r).
[[nodiscard]] LaplaceLikelihood laplacelikelihood(const EngineData& data, const LaplaceSettings& settings,
                                                  const Parameters& start, const Array<double>& u,
                                                  const Array<double>& v);

// L = -(1/2) [J3 log|Tb| + J2 log|Tp| + sum_j log|H2_j| + sum_k log|H3_k| - 2 sum_i (y_i eta_i + log(1 - mu_i))
//             + sum_j u_j' Tp^-1 u_j + sum_k v_k' Tb^-1 v_k - 2 sum_k log(1 - S_k)] - (1/2) N log(2 pi)
// at a point, which is not usable where L is not defined: a tau or a second derivative cannot be inverted, the modes do
// not settle, some 1 - S_k is not above 0, or L is not finite.
[[nodiscard]] Evaluation laplacevalue(LaplaceLikelihood& likelihood, const Array<double>& point);
// Score and information sum_k s_k s_k' at the current point, without the value. Its modes are found anew.
[[nodiscard]] Evaluation laplacescore(LaplaceLikelihood& likelihood, const Array<double>& point);
// What the ascent climbs.
[[nodiscard]] RidgedProblem laplaceproblem(LaplaceLikelihood& likelihood);

struct LaplaceResult {
  EngineResult fit;
  bool finalcall = false;    // a ridge was in use: the last evaluation was made for the standard errors only
  Array<double> rel2, rel3;  // [q], [r] reliabilities, means over nrel2 of J2 and nrel3 of J3 units
  int nrel2 = 0, nrel3 = 0;
  Array<double> u, v;  // modes that go with the estimates of the last walk through the data
};

// Iterates from `start` and the modes u (J2 by q) and v (J3 by r) until the estimates have settled. `quasilikelihood`
// is taken for the likelihood of `start`.
[[nodiscard]] LaplaceResult runlaplace(const EngineData& data, const LaplaceSettings& settings, const Parameters& start,
                                       const Array<double>& u, const Array<double>& v, double quasilikelihood);

}  // namespace kdr
