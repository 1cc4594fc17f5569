// The joint posterior modes of the effects of a level-3 unit and of its level-2 units, by Newton's method.
#pragma once

#include "estimate/quadrature/movingnodes.h"
#include "estimate/quadrature/recorddensities.h"
#include "estimate/quadrature/sphericalunit.h"

namespace kdr {

// What the search leaves, at the modes; buffers of one thread.
struct ModeWork {
  UnitFrames frames;
  UnitRows rows;
  RecordDensities densities;
  Sweep sweep;           // its covariances are the inverse of the curvature there
  Array<double> M, h;    // of each level-2 unit: sum W x~x~' packed, sum r x~
  double density = 0.0;  // sum of the log-densities of the records
  Array<double> z, w;    // the modes
  Array<double> coefficients, trialz, trialw, scratch;
};

// From `z` (units by q) and `w` (r), which get the modes. False when there is none to be found.
[[nodiscard]] bool jointmodes(const Frame& frame, const SphericalPoint& point, const Level3Records& records, double* z,
                              double* w, ModeWork& work);

}  // namespace kdr
