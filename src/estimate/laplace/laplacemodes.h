// The joint posterior modes of the random effects of a Bernoulli model with logit link, found by sweeps over the data.
//
// For record i of level-2 unit j of level-3 unit k: eta_i = xg_i' gamma + e_i' v_k + d_i' u_j, mu_i its inverse logit,
// w_i = mu_i (1 - mu_i), r_i = y_i - mu_i.
#pragma once

#include <cstddef>
#include <functional>

#include "estimate/likelihood/parameters.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// What the engine is told of the data. The design outlives the engine.
struct LaplaceData {
  const Design* design = nullptr;
  int npi = 0, nbeta = 0;               // level-1 and level-2 coefficients
  int units3 = 0;                       // J3
  std::size_t units2 = 0, records = 0;  // J2, N
  RecordSource source;
};

struct LaplaceSettings {
  double stopmacro = 1.0e-4;  // relative change of an estimate that is too large to stop at
  // The same of a mode. Modes found to stopmacro only leave a noise in the likelihood that hides the small gains of the
  // last iterations: no step then seems to climb, and the run fails at its maximum.
  double stopmodes = 1.0e-7;
  int laplaceit = 50;   // most iterations
  int maxsweeps = 200;  // most sweeps for the modes
  int threads = 1;
  // Asked at the end of the mode sweeps and of each iteration; true when the user has ended the iterations. May be
  // null.
  std::function<bool()> stopasked;
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
void startmodes(const LaplaceData& data, int q, int r, const Array<double>& u, const Array<double>& v,
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
[[nodiscard]] RandomColumns randomcolumns(const LaplaceData& data, int q, int r);

// Coefficients (npi) of the level-1 predictors in the linear predictor of unit j of `unit`, theta (nbeta) = W3_k gamma.
void level1coefficients(const LaplaceData& data, const Level3Records& unit, int j, const double* theta, const double* v,
                        int r, const double* u, int q, double* coefficients);
// The random columns of the unit's records, `records` by count: x itself, or copied into `room`.
[[nodiscard]] const double* randompart(const LaplaceData& data, const Level3Records& unit, const RandomColumns& columns,
                                       Array<double>& room);

enum class ModeResult { found, noC2, noC3, unsettled };

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
// division by w_i left out. `mark` goes to the console between sweeps. A failed inversion, or modes that have not
// settled after settings.maxsweeps sweeps, has its line on the console.
[[nodiscard]] ModeResult findmodes(const LaplaceData& data, const LaplaceSettings& settings,
                                   const Parameters& parameters, const TauInverses& inverses, const char* mark,
                                   LaplaceModes& modes, ModeSums& sums);

}  // namespace kdr
