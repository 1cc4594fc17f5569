// The coordinates in which maximum likelihood by quadrature climbs.
//
// Predictors: with x = R1' x~, d = Rd' d~, e = Re' e~, xg = Rx' xg~ the columns of x~, d~, e~ and xg~ are orthogonal
// with a mean square of 1 over the records, so that no predictor's unit or origin can matter. Where a covariance matrix
// is diagonal its columns are divided by their root mean square only.
//
// Effects: u = toD A z, v = toE B w with standard normal z and w, A and B lower triangular with diagonals of any sign.
// No covariance matrix is inverted, so that a variance of 0 is a point like any other. A is kept pivoted: the first
// effect has the largest variance but for a factor of 2, the second that of what the first leaves, and so on.
//
// Thresholds, the last fixed effects and the last columns of x, take no part in the rotation. The point holds u = log s
// of their distances s (cuts.h), and gamma~ of what follows ends in the s.
#pragma once

#include <cstddef>
#include <vector>

#include "core/outcome.h"
#include "estimate/likelihood/parameters.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/linear/pass.h"
#include "estimate/quadrature/quadratureloops.h"
#include "kernel/array.h"

namespace kdr {

// The design of every unit, kept so that sweeps over the units need no records.
struct UnitDesigns {
  std::vector<std::size_t> first;  // [J3 + 1] level-2 units before each level-3 unit
  std::vector<double> w2;          // J2 by nbeta
  std::vector<double> w3;          // J3 by full ngamma
  // Of a weighted run: a level-2 unit's weight within its level-3 unit, a level-3 unit's over their mean.
  std::vector<double> weight2, weight3;  // [J2], [J3], else empty
};

struct Frame {
  Family outcome = Family::bernoulli;
  int npi = 0, nbeta = 0, q = 0, r = 0, g = 0;
  int thresholds = 0;  // of the g
  bool diagonalpi = false, diagonalbeta = false;
  // Of a multinomial outcome: the linear predictor, from 0, that a level-1 coefficient stands in; those of the
  // categories but the last. Columns of x~ belong to the predictors of theirs, as they turn within them. Else empty.
  std::vector<int> response;
  std::size_t responses = 1;  // linear predictors of a record
  [[nodiscard]] bool multinomial() const { return !response.empty(); }
  const Design* design = nullptr;
  Array<double> R1, toX;  // npi squared; x~' = x' toX
  Array<double> Rx, toG;  // g squared; gamma = toG gamma~
  Array<double> Rd, toD;  // q squared; d~' = d' toD
  Array<double> Re, toE;  // r squared
  Array<double> Sd;       // npi by q: d~ = Sd' x~
  UnitDesigns units;
  double records = 0.0;       // those of the source
  double outcomes = 0.0;      // those that the outcome was observed in: fewer where records are cuts
  Array<double> categories;   // [C] of cuts: how many of the outcomes each category has
  bool shares = false;        // Bernoulli: an outcome that is neither 0 nor 1
  double counts = 0.0;        // Poisson: -sum of log y!
  double combinations = 0.0;  // binomial: the logarithms of the binomial coefficients
  double scale = 1.0;  // mean of the level-3 weights: a log-likelihood of the engine times it is that of the data

  [[nodiscard]] std::size_t units2() const { return units.first.back(); }
  [[nodiscard]] std::size_t units3() const { return units.first.size() - 1; }
  // Those of level-3 unit k and of its level-2 unit j; 1 without.
  [[nodiscard]] double weight3(std::size_t k) const { return units.weight3.empty() ? 1.0 : units.weight3[k]; }
  [[nodiscard]] double weight2(std::size_t k, std::size_t j) const {
    return units.weight2.empty() ? 1.0 : units.weight2[units.first[k] + j];
  }
  // All of the level-2 units of k; null without.
  [[nodiscard]] const double* weightsof2(std::size_t k) const {
    return units.weight2.empty() ? nullptr : units.weight2.data() + units.first[k];
  }
  // Level-2 units as their weights, and those above, count them: what means over them are divided by.
  double counted2 = 0.0;
  // Elements of a point: the pairs (a, b), a >= b, of A row by row, those of B, gamma~ with u in the place of s.
  [[nodiscard]] std::size_t count() const;
};

// Reads the data once. An ordinal outcome's source delivers cuts, which are binary records.
Frame makeframe(Family outcome, int npi, int nbeta, const Design& design, RecordSource& source, const Parameters& shape,
                bool diagonalpi, bool diagonalbeta, const std::vector<int>& response = {});

// A point in matrices.
struct SphericalPoint {
  Array<double> A, B;  // q squared, r squared, lower triangular
  Array<double> g;     // gamma~
};
SphericalPoint sphericalpoint(const Frame& frame, const Array<double>& point);

// The point of parameters, pivoting the frame. Covariance matrices may be singular.
Array<double> pointof(Frame& frame, const Parameters& parameters);
Parameters parametersof(const Frame& frame, const Array<double>& point);
// The derivatives of (vech taupi, vech taubeta, gamma), rows, by the point, columns.
Array<double> parameterderivatives(const Frame& frame, const Array<double>& point);
// Whether an element of a point is held at 0: those off a diagonal matrix's diagonal.
std::vector<bool> heldelements(const Frame& frame);

// How the effects turn when the frame is pivoted anew: z := Q2' z, w := Q3' w.
struct Turn {
  bool turned = false;
  Array<double> Q2, Q3;
};
// Pivots frame and point anew where an effect has less than half the largest variance that is left.
Turn pivot(Frame& frame, Array<double>& point);

// xg~ = Sx' x~ and e~ = Se' x~ in each level-2 unit of one level-3 unit.
struct UnitFrames {
  Array<double> Sx;  // units by npi by g
  Array<double> Se;  // units by npi by r
  Array<double> T, work;
};
void makeunitframes(const Frame& frame, std::size_t k, UnitFrames& frames);

}  // namespace kdr
