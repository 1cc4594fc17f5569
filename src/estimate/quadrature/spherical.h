// The log-likelihood of all units at a point, as the ascent asks for it.
#pragma once

#include <functional>
#include <vector>

#include "estimate/ascent/ascent.h"
#include "estimate/quadrature/jointmodes.h"
#include "estimate/quadrature/sphericalunit.h"

namespace kdr {

// A point with what its evaluation left.
struct SphericalState {
  Array<double> point;
  Nodes nodes;  // posterior moments
  RecordSums sums;
  Array<double> outer;      // P squared: sum of the outer products of the units' scores, times their weights
  Array<double> curvature;  // [q + r]: i_a, the mean information of a unit about a column
  Array<double> shares;     // [J3] of Laplace-6: log(1 - S), what the sixth order adds to the log-likelihood of a unit
};

struct SphericalLikelihood {
  Frame frame;
  SphericalGrids grids;
  RecordSource* source = nullptr;
  int threads = 1;
  bool sixth = false;  // the Laplace approximation takes its terms of the sixth order (onepoint.h)
  // May be empty. Asked within an evaluation by the thread that called: true drops it, so that the ascent ends where it
  // stands.
  std::function<bool()> halts;
  bool halted = false;   // the last evaluation was dropped, and no ascent has taken note
  bool stopped = false;  // one was
  SphericalState current, trial;
  std::vector<SphericalWork> work;  // of each thread
  std::vector<ModeWork> modework;
};

// What ends a walk over the units before its end: the fit is given up, or the user wants the results so far.
[[nodiscard]] std::function<bool()> haltof(SphericalLikelihood& likelihood);
// Whether the last evaluation was dropped since the user wants the results so far; takes note of it.
[[nodiscard]] bool takehalt(SphericalLikelihood& likelihood);

// Frame, states and the start's point. `source` and `design` must outlive it.
SphericalLikelihood makespherical(Family outcome, int npi, int nbeta, const Design& design, RecordSource& source,
                                  const Parameters& shape, bool diagonalpi, bool diagonalbeta, int threads,
                                  const std::vector<int>& response = {});

// Nodes at the joint modes of a point; the search begins at `nodes`. `curvature`, when not null, gets i_a there. False
// when there are none.
[[nodiscard]] bool placemodes(SphericalLikelihood& likelihood, const Array<double>& point, Nodes& nodes,
                              Array<double>* curvature);

// Integrates around trial.nodes at `point` into `trial`.
Evaluation evaluatespherical(SphericalLikelihood& likelihood, const Array<double>& point);

// Reach and first steps at saddles from i_a.
void setreach(const Frame& frame, const Array<double>& point, const Array<double>& curvature, Evaluation& evaluation);

// The problem of an ascent; `likelihood` must outlive it.
AscentProblem ascentof(SphericalLikelihood& likelihood);

}  // namespace kdr
