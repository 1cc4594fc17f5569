// The joint posterior modes of the effects of a level-3 unit and of its level-2 units, by Newton's method.
#pragma once

#include "estimate/quadrature/movingnodes.h"
#include "estimate/quadrature/sphericalunit.h"

namespace kdr {

// What the search leaves, at the modes; buffers of one thread.
struct ModeWork {
  UnitFrames frames;
  RecordDensity kind = RecordDensity::bernoulli;  // of the records
  std::vector<std::size_t> first;      // [units + 1] records, each unit's rounded up, before each level-2 unit
  Array<double> xcolumns, y, n, logn;  // by these places: npi columns of x~ unit by unit; trials or 1, and exposures
  Array<double> D;                     // dW/deta at the modes; multinomial: the probabilities, by predictors
  Array<double> fixed, columns;        // of each level-2 unit: the coefficients Sx g (npi); (Sd A, Se B), npi by q + r
  Sweep sweep;                         // its covariances are the inverse of the curvature there
  Array<double> M, h;                  // of each level-2 unit: sum W x~x~' packed, sum r x~
  double density = 0.0;                // sum of the log-densities of the records
  Array<double> z, w;                  // the modes
  Array<double> coefficients, trialz, trialw, scratch;

  [[nodiscard]] RecordColumns columnsof(const Frame& frame, std::size_t j);
};

// Frames and columns of a unit's records, which any number of searches may follow.
void placerecords(const Frame& frame, const Level3Records& records, ModeWork& work);
// From `z` (units by q) and `w` (r), which get the modes, of records that stand placed. False when there is none to be
// found. They end when a Newton step promises less than half of `promise`.
[[nodiscard]] bool searchmodes(const Frame& frame, const SphericalPoint& point, const Level3Records& records,
                               double promise, double* z, double* w, ModeWork& work);
// Both.
[[nodiscard]] bool jointmodes(const Frame& frame, const SphericalPoint& point, const Level3Records& records,
                              double promise, double* z, double* w, ModeWork& work);
// Modes that are exact to 1e-10 of their standard errors. The curvature at them has a slope, so that a difference of
// two values needs that much.
inline constexpr double exactmodes = 1.0e-20;

}  // namespace kdr
