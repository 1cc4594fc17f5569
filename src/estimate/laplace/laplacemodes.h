// The joint posterior modes of the random effects of a Bernoulli model with logit link, found by sweeps over the data.
//
// For record i of level-2 unit j of level-3 unit k: eta_i = xg_i' gamma + e_i' v_k + d_i' u_j, mu_i its inverse logit,
// w_i = mu_i (1 - mu_i), r_i = y_i - mu_i.
#pragma once

#include <cstddef>

#include "estimate/ascent/ridgedascent.h"
#include "estimate/likelihood/engine.h"
#include "kernel/array.h"

namespace kdr {

struct LaplaceSettings {
  EngineSettings engine;
  double stopmacro =
      1.0e-4;  // relative change of an estimate that is too large to stop at: that of the macro iterations
  // The same of a mode. Modes found to stopmacro only leave a noise in the likelihood that hides the small gains of the
  // last iterations: no step then seems to climb, and the run fails at its maximum.
  double stopmodes = 1.0e-7;
  int maxsweeps = 200;  // most sweeps for the modes: those that settle take tens
  // The first two steps may lower the likelihood, which begins as that of another approximation.
  RidgedPolicy ascent{.firstridge = 0.01, .freesteps = 2};
};

// Modes, and what the last sweep left of the second derivatives, one place per unit.
struct LaplaceModes {
  Array<double> u;   // [q] per level-2 unit
  Array<double> C2;  // q squared: inverse of H2 = sum_i w_i d_i d_i' + taupi^-1
  Array<double> Q;   // r by q: sum_i w_i e_i d_i' C2
  Array<double> v;   // [r] per level-3 unit
  Array<double> H3;  // r squared: taubeta^-1 + sum_j (sum_i w_i e_i e_i' - Q_j sum_i w_i d_i e_i')
  Array<double> C3;  // r squared: its inverse
};

// Makes room for q by r modes of the data, at the starting values u (J2 by q) and v (J3 by r).
void startmodes(const EngineData& data, int q, int r, const Array<double>& u, const Array<double>& v,
                LaplaceModes& modes);

// The inverses of the two taus and the logarithms of their determinants.
struct TauInverses {
  Array<double> Kp, Kb;
  double logTp = 0.0, logTb = 0.0;
};
// False when one of them is singular.
[[nodiscard]] bool invertaus(const Parameters& parameters, TauInverses& inverses);

// The level-1 coefficients with a random effect at either level: only they enter e_i and d_i.
struct RandomColumns {
  Array<int> columns;  // [count] level-1 coefficients, in ascending order
  Array<int> e;        // [r] the place in `columns` behind each element of e_i
  Array<int> d;        // [q] behind each element of d_i
  int count = 0;
  bool all = false;  // every level-1 coefficient is among them
};
[[nodiscard]] RandomColumns randomcolumns(const EngineData& data, int q, int r);

// Coefficients (npi) of the level-1 predictors in the linear predictor of unit j of `unit`, theta (nbeta) = W3_k gamma.
void level1coefficients(const EngineData& data, const Level3Records& unit, int j, const double* theta, const double* v,
                        int r, const double* u, int q, double* coefficients);
// The random columns of the unit's records, `records` by count: x itself, or copied into `room`.
[[nodiscard]] const double* randompart(const EngineData& data, const Level3Records& unit, const RandomColumns& columns,
                                       Array<double>& room);

// Sums of the last sweep over the units, for the likelihood.
struct ModeSums {
  double logH2 = 0.0, logH3 = 0.0;  // logarithms of the determinants
  double uKu = 0.0, vKv = 0.0;      // u_j' taupi^-1 u_j and v_k' taubeta^-1 v_k
};

// Sweeps from the modes as they stand until no element of v and no element of u, each in some sweep of its own, has
// changed by more than stopmodes relative to its old value; elements that were 0 take no part. In a sweep, with the
// current v_k and u_j:
//   u_j := C2_j [sum_i d_i r_i + (sum_i w_i d_i d_i') u_j]
//   v_k := C3_k sum_j [sum_i e_i t_i - Q_j sum_i d_i t_i],  t_i = r_i + w_i (e_i' v_k + d_i' u_j)
// which are the reweighted least squares u_j = C2_j sum_i w_i d_i (z_i - xg_i' gamma - e_i' v_k) and so on with the
// division by w_i left out. `sweep` is told between sweeps, and so is a failure: `data`, `centre2`, `centre3` or,
// behind settings.maxsweeps sweeps, `unsettled`.
[[nodiscard]] EngineFailure findmodes(const EngineData& data, const LaplaceSettings& settings,
                                      const Parameters& parameters, const TauInverses& inverses,
                                      EngineEvent::Kind sweep, LaplaceModes& modes, ModeSums& sums);

}  // namespace kdr
