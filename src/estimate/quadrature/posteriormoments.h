// The random effects themselves by the nodes that an accepted evaluation has left: posterior means and covariances, and
// how reliable they are.
#pragma once

#include "core/results.h"
#include "estimate/linear/unitresults.h"
#include "estimate/quadrature/spherical.h"

namespace kdr {

// u = U z, Cov(u) = U P U' with U = toD A;  v = V w, Cov(v) = V C3 V' with V = toE B;  Cov(u, v) = U K V'. Of
// quadrature they are integrals, of one point the joint modes with the inverse of the curvature there.
[[nodiscard]] Posteriors posteriorsof(const Frame& frame, const Array<double>& point, const Nodes& nodes);

// Sums of reliabilities over units that have one, and how many these are. Of a T of columns that the inverse I of a
// unit's information turns to V = to I to' the reliability of effect a is T_aa / (V + T)_aa.
struct ReliabilitySums {
  int order;
  const Array<double>&to, &T;
  double *sums, *count;

  void add(const double* information) const;
};
// Adds a level-3 unit by the weights of its records. M: of each level-2 unit sum W x~x~', packed. The information of
// level 2 is sum W dd', that of level 3 what the level-2 effects leave of sum W ee'; `weights`: as of sweepunit.
void addreliabilities(const Frame& frame, const SphericalPoint& point, const UnitFrames& frames, std::size_t units,
                      const double* weights, const double* M, const Array<double>& C2, const ReliabilitySums& level2,
                      const ReliabilitySums& level3);
// Their means by the weights that the last accepted evaluation has left.
[[nodiscard]] Reliabilities reliabilitiesof(const SphericalLikelihood& likelihood);
// The means of sums per level-3 unit: of the order `q + r`, then the two counts.
[[nodiscard]] Reliabilities meanreliabilities(const Frame& frame, const Array<double>& sums);

}  // namespace kdr
