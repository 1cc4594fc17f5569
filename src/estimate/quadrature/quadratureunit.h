// The nested integrals of one level-3 unit by adaptive Gauss-Hermite quadrature, and their moments. Derived in
// docs/numerics.md, "Adaptive quadrature (fixed nodes)".
//
// For level-3 unit k with effects v ~ N(0, taubeta) and its level-2 units j with effects u_j ~ N(0, taupi):
//   L_k = log int phi(v) prod_j int phi(u) prod_i f(y_i | eta_i) du dv.
// Level-3 nodes are v = vstar_k + L3 x with L3 L3' = 2 C3_k, level-2 nodes u = ustar_j + L2 x with L2 L2' = 2 P_j,
// whatever v is.
//
// All work is in the npi level-1 coefficients: with x_i the level-1 row of a record, xg_i = W3' W2_j' x_i, so that the
// score of gamma is W3' sum_j W2_j' h_j with h_j = sum_i x_i r_i. W2_j is applied once per level-2 unit and W3 once per
// level-3 unit, to sums over all nodes; so is the outer product of each record, to its average weight.
#pragma once

#include <cstddef>

#include "estimate/likelihood/engine.h"
#include "estimate/quadrature/quadratureloops.h"
#include "estimate/quadrature/quadraturenodes.h"
#include "kernel/array.h"

namespace kdr {

// Centre and covariance of every integral.
struct Adaptation {
  Array<double> vstar;  // J3 by r
  Array<double> C3;     // J3 by r squared
  Array<double> ustar;  // J2 by q
  Array<double> P;      // J2 by q squared
};

// What stays the same for a run of the estimator.
struct QuadratureModel {
  Family outcome = Family::bernoulli;
  int npi = 0, nbeta = 0;
  int q = 0, r = 0, g = 0;
  const Design* design = nullptr;
  NodeGrid grid2, grid3;
};

// What stays the same for a walk over the data.
struct QuadraturePoint {
  const double* gamma = nullptr;  // [g]
  Array<double> Kp, Kb;           // inverses of taupi and taubeta
  double logc2 = 0.0, logc3 = 0.0;
};
// False when taupi or taubeta has no usable inverse.
[[nodiscard]] bool makepoint(QuadraturePoint& point, const Parameters& parameters);

// Buffers of one thread, grown as units need them.
struct QuadratureWork {
  Array<double> C2, L2, L3;                           // Cholesky factors and what they are made from
  Array<double> v, quad3, t3;                         // nodes of level 3: r by count, [count], P3 by count
  Array<double> u, quad2, t2, z;                      // nodes of level 2: q by count, [count], P2 by count, Z by count
  Array<double> rows, fixed, theta, coefficients, n;  // of the records of a unit
  Array<double> nodes, logdensity, gradient, weights, product;  // of the loops
  Array<double> sums;                                           // [level-3 nodes of a block] s of each node
  Array<double> statistics, averages;                           // per node of a block and unit; per unit
  Array<double> recordweights, averageweights;                  // per node of a block and record; per record
  Array<double> level3;                                         // per node of a block: (t2, t3, beta) sums
  Array<double> moments, information;
};

// The moments of a level-3 unit.
struct UnitMoments {
  double* score = nullptr;        // [P] of twice the log-likelihood, in the order of the parameters
  double* information = nullptr;  // P squared, both triangles, or null: of twice the log-likelihood, but for the
                                  // expected second derivatives of the tau blocks, which need only the numbers of units
  Adaptation* next = nullptr;     // gets the posterior means and covariances of v_k and of its u_j
};

// The log-likelihood of a unit. `moments` may be null: the integrals alone. Constants of the outcome alone (binomial
// coefficients, log y!) are left out. `centre3` or `centre2` where an integral has no scale.
[[nodiscard]] EngineFailure integrateunit(const QuadratureModel& model, const QuadraturePoint& point,
                                          const Level3Records& records, const Adaptation& adaptation,
                                          QuadratureWork& work, double& loglikelihood, const UnitMoments* moments);

}  // namespace kdr
