// Maximum likelihood of a three-level Bernoulli model with logit link under the sixth-order Laplace approximation, by
// scoring steps on the outer products of the scores of the level-3 units with a ridge (Levenberg and Marquardt).
//
// Use: fill LaplaceData, call runlaplace with copies of the estimates and the residuals that they go with, and take the
// estimates from the result when it is not `failed`.
#pragma once

#include "estimate/laplace/laplacemodes.h"
#include "estimate/laplace/laplacescore.h"

namespace kdr {

// What lasts from one iteration to the next.
struct LaplaceState {
  Parameters now, previous;  // the current estimates, and those before this iteration
  LaplaceModes modes;
  Ridge ridge;
  int iteration = 1;
  double loglik = 0.0;   // at `now`; at first the quasi-likelihood
  int left = 0;          // iterations that are still allowed
  bool stopped = false;  // the user ended the iterations

  // Of the last walk through the data, at the estimates before the step.
  Array<double> score;        // P
  Array<double> information;  // P squared, sum_k s_k s_k', with the ridges added
  Array<double> inverse;      // P squared, its inverse
  Array<double> rel2, rel3;   // [q], [r] reliabilities, of nrel2 level-2 and nrel3 level-3 units
  int nrel2 = 0, nrel3 = 0;
};

enum class LaplaceStep { done, notinverted, outside };

// L = -(1/2) [J3 log|Tb| + J2 log|Tp| + sum_j log|H2_j| + sum_k log|H3_k| - 2 sum_i (y_i eta_i + log(1 - mu_i))
//             + sum_j u_j' Tp^-1 u_j + sum_k v_k' Tb^-1 v_k - 2 sum_k log(1 - S_k)] - (1/2) N log(2 pi)
// at state.now. The modes are left at those of state.now. False when L is not defined there: a tau or a second
// derivative cannot be inverted, the modes do not settle, some 1 - S_k is not above 0, or L is not finite.
[[nodiscard]] bool laplace6loglikelihood(const LaplaceData& data, const LaplaceSettings& settings, LaplaceState& state,
                                         double& loglik);

// One iteration: modes, score and information at state.now, then a step to a point that is usable and, from the third
// iteration on, not less likely. An accepted step moves state.now and state.loglik, and state.iteration by 1. With
// `final` the iteration ends once the information is inverted, without a ridge.
[[nodiscard]] LaplaceStep laplace6iterate(const LaplaceData& data, const LaplaceSettings& settings, LaplaceState& state,
                                          bool final);

enum class LaplaceEnd {
  failed,        // no result: the caller's estimates stand
  noiterations,  // none was allowed, or the user stopped before the first: estimates and likelihood as they came in
  estimated
};

struct LaplaceResult {
  LaplaceEnd end = LaplaceEnd::failed;
  Parameters estimates;
  double loglik = 0.0;
  bool converged = false;            // the estimates have settled: no limit and no user ended the iterations
  int iteration = 0;                 // the number in the heading
  bool finalcall = false;            // a ridge was in use: the last call was made for the standard errors only
  Array<double> inverse;             // P squared: covariance of all parameters in their order
  Array<double> taucovariance;       // its block of the elements of taupi and taubeta
  Array<double> vgamma;              // g squared: its block of gamma
  Array<double> setaupi, setaubeta;  // q squared, r squared: standard errors of the elements, symmetric
  Array<double> rel2, rel3;          // [q], [r] reliabilities, means over nrel2 of J2 and nrel3 of J3 units
  int nrel2 = 0, nrel3 = 0;
  Array<double> u, v;  // modes that go with the estimates of the last walk through the data
};

// Iterates from `start` and the modes u (J2 by q) and v (J3 by r) until the estimates have settled, at most
// settings.laplaceit times. `quasilikelihood` is taken for the likelihood of `start`.
[[nodiscard]] LaplaceResult runlaplace(const LaplaceData& data, const LaplaceSettings& settings,
                                       const Parameters& start, const Array<double>& u, const Array<double>& v,
                                       double quasilikelihood);

}  // namespace kdr
