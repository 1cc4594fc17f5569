// Where the nodes of quadrature lie: centres and covariances of standard normal effects w of a level-3 unit and z of
// its level-2 units, and how they go with the parameters.
//
// A sweep is one Newton step of the effects at given weights W of the records, for all units of level 3 at once:
//   H2 = I + A'(sum W dd')A,  X23 = A'(sum W de')B,  C2 = H2^-1,  slope = -C2 X23,
//   H3 = I + B'(sum W ee')B - sum_j X23'C2 X23,  C3 = H3^-1,  K = slope C3,  P = C2 + slope C3 slope',
// with the right sides g2 = A' sum d res - z, g3 = B' sum e res - w - sum_j X23'C2 g2 and the moves dw = C3 g3,
// dz = C2 g2 + slope dw. A level-2 unit with a design weight counts in the sums of H3 and g3 as so many units. An
// evaluation leaves the mean weights and residuals of each level-2 unit as sums over its
// records, so that a sweep reads no records.
#pragma once

#include <cstddef>
#include <string>

#include "estimate/quadrature/frame.h"
#include "kernel/array.h"

namespace kdr {

// Covariances in the spherical effects. P = Cov(z), K = Cov(z, w), C3 = Cov(w).
struct Nodes {
  Array<double> w;   // J3 by r
  Array<double> C3;  // J3 by r squared
  Array<double> z;   // J2 by q
  Array<double> P;   // J2 by q squared
  Array<double> K;   // J2 by q by r
  [[nodiscard]] Nodes copy() const;
};
Nodes makenodes(const Frame& frame);
void turnnodes(const Frame& frame, const Turn& turn, Nodes& nodes);

// What an evaluation leaves of the records of each level-2 unit. Nodes alone are placed by it, so that half of the
// digits do.
struct RecordSums {
  Array<float> M;  // J2 by npi(npi+1)/2: sum E[W] x~ x~', packed
  Array<float> h;  // J2 by npi: sum x~ E[r]
};
RecordSums makesums(const Frame& frame);

// The columns of x~ that go with the effects of a level-3 unit at a point: (Sd A, Se B), units by npi by q + r.
void makecolumns(const Frame& frame, const SphericalPoint& point, const UnitFrames& frames, std::size_t units,
                 Array<double>& columns);

// One sweep over a level-3 unit.
struct Sweep {
  Array<double> C2, L2, slope, P, K;  // per level-2 unit; L2 = chol(C2)
  Array<double> dz;                   // units by q
  Array<double> C3, L3, dw;           // L3 = chol(C3)
  double logdeterminant = 0.0;        // of the whole information of the effects
  Array<double> right, work;
};
// M, res: of each unit, packed npi(npi+1)/2 and npi; weights: [units], null for 1. False when no covariance comes out,
// as by numbers that are not finite.
[[nodiscard]] bool sweepunit(const Frame& frame, const Array<double>& columns, std::size_t units, const double* weights,
                             const double* M, const double* res, const double* z, const double* w, Sweep& sweep);

// The nodes at another point, from the posterior moments `moments` and the sums of the evaluation at `from`: centres go
// along by the difference of the sweeps' moves, covariances by that of their factors. At the same point only the guards
// are at work: covariances that came from too few nodes, of w and of z at a given w, keep within [1/20, 20] of the
// sweep's. False on failure.
[[nodiscard]] bool carrynodes(const Frame& frame, const Array<double>& from, const Nodes& moments,
                              const RecordSums& sums, const Array<double>& to, int threads, Nodes& nodes);

}  // namespace kdr
