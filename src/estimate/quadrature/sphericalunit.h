// The nested integrals of one level-3 unit in standard normal effects, and their moments.
//
//   L_k = log int phi(w) prod_j int phi(z) prod_i f(y_i | eta_i) dz dw,   eta_i = x~_i'(Sx g + Sd A z + Se B w).
// Level-3 nodes are w_m = w* + L3 x_m. Level-2 nodes go with them by the unit's posterior covariance K with w, faded in
// by the share of the unit's variance that goes with w: with S = K C3^-1 and share = tr(P^-1 S K'),
//   kappa = clamp((share - .15) / .15, 0, 1),  z_ml = z* + kappa S (w_m - w*) + L2 x_l,  L2 L2' = P - (2 kappa -
//   kappa^2) S K'.
// (Where a unit's effect hardly depends on w, nodes that stand still average errors out that moving ones repeat.)
//
// Design weights: a record's log-density times its weight, a level-2 unit's log-integral times its own, b_j:
//   L_k = log int phi(w) prod_j (int phi(z) prod_i f(y_i | eta_i)^a_i dz)^b_j dw.
// Records come with theirs (unitrecords.h). Given w, score and information of unit j count b_j times; L_k, times the
// weight of k, is what the caller sums.
//
// Score of an element: A_ab: a_ab = h_d[a] z_b; B_ab: h_e[a] w_b; g: h_x, with h = sum_i r_i times the row. Information
// by Louis (1982): sum_i E[W_i c_i c_i'] - Var(a), c_i = (d_ia z_b; e_ia w_b; x_i), exact for standard normal effects.
#pragma once

#include <cstddef>
#include <vector>

#include "estimate/likelihood/halt.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/quadrature/movingnodes.h"
#include "estimate/quadrature/quadratureloops.h"
#include "estimate/quadrature/quadraturenodes.h"
#include "kernel/array.h"

namespace kdr {

struct SphericalGrids {
  NodeGrid level2, level3;
  std::size_t points = 0;
  Array<double> line;                           // the points of a dimension, of standard normal effects
  Array<double> weight2;                        // the weights of level 2, with 0 up to a multiple of nodestep
  std::vector<unsigned char> digits2, digits3;  // dims by count: the point of a node in each dimension
  double constant2 = 0.0, constant3 = 0.0;      // log of what a grid's weights lack to those of standard normal nodes
};
// False when the nodes cannot be found. One point is the centre itself.
[[nodiscard]] bool makegrids(SphericalGrids& grids, int points, int q, int r);

// Records of a unit as the loops take them.
struct UnitRows {
  Array<double> x;           // records by npi: x~
  Array<double> logn;        // [records] logarithms of the exposures
  Array<double> indicators;  // records by predictors, of multinomial ones: n in the place of a record's category, 1
                             // where there is no n
};
// Makes x~ and, for counts with exposure, the logarithms, for multinomial records the indicators.
void makeunitrows(const Frame& frame, const Level3Records& records, UnitRows& rows);
// The density of the records.
[[nodiscard]] RecordDensity densityof(const Frame& frame, const Level3Records& records);

// What one unit gives.
struct UnitSums {
  double loglikelihood = 0.0;     // but for constants of the outcome alone
  double* score = nullptr;        // [P]
  double* information = nullptr;  // P squared, both triangles
  double* complete = nullptr;     // [P] the diagonal of its first part
  double* curvature = nullptr;    // [q + r]: sum of E[W] d~_a^2, E[W] e~_b^2
};

// Buffers of one thread, grown as units need them.
struct SphericalWork {
  UnitFrames frames;
  UnitRows rows;
  Array<double> fixed,
      effects;  // of the records of a level-2 unit: eta at the centres; what it changes by with the nodes
  Array<double> outer, inner, linear, parts;  // of the loops
  std::vector<std::size_t> firstrow;          // [units + 1] rows of weights before each level-2 unit
  Array<double> identity, narrowSd, narrowM;  // of units with fewer records than columns
  Array<double> cx, cD, cE;                   // coefficients of x~
  Array<double> w, quad3;                     // w - w*, r by nodes of level 3; [nodes]
  Array<double> shift, L2, constant;          // per level-2 unit: kappa S, L2, log|L2|
  Array<double> spread;                       // q by nodes of level 2: L2 x_l
  Array<double> L3, nodes, offsets, logdensity, gradient, weights, product, sets, zsets, total, totals;
  Array<double> statistics, averages, rowweights, rowaverages, level3, moments, information;
  Array<double> scratch;
};

// Integrates around `nodes`; the unit's posterior moments take the place of its nodes, its sums go to `sums`. False
// when the integral is not a number or the nodes have no covariance, and behind a halt.
[[nodiscard]] bool integratespherical(const Frame& frame, const SphericalGrids& grids, const SphericalPoint& point,
                                      const Level3Records& records, Nodes& nodes, RecordSums& sums,
                                      const Asking& asking, SphericalWork& work, UnitSums& result);

}  // namespace kdr
