// A likelihood without random effects as a function of the variance components, for climbs over covariance matrices
// (ascent/conescoring.h). The fixed effects are those that are best at each point.
#pragma once

#include <optional>

#include "estimate/ascent/evaluation.h"
#include "estimate/linear/marginalderivatives.h"
#include "estimate/linear/restriction.h"

namespace kdr {

// The variance components of estimates as one vector, both triangles, then sigma2; and `est` with those of a point.
[[nodiscard]] Array<double> variancepoint(const MarginalSums& sums, const Estimates& est);
[[nodiscard]] Estimates estimatesat(const MarginalSums& sums, const Array<double>& point, const Estimates& est);

// X = I^-1 (m squared) of a matrix that is positive definite once brought to a unit diagonal.
[[nodiscard]] bool invertatunitdiagonal(std::size_t m, const double* I, Array<double>& X);

struct MarginalSurface {
  MarginalSums& sums;
  Criterion criterion = Criterion::full;
  const Restriction& restriction;
  Estimates now;                        // the last point that was evaluated, with its fixed effects
  std::optional<HeldEffect> held = {};  // a fixed effect that stands still
  Array<double> lastpoint = {};         // the point that was asked for, and what is known there
  MarginalStep latest = {};

  // A trial point is the next one as a rule: its derivatives cost less now than later.
  const MarginalStep& look(const Array<double>& point);
  // Value, score and information; the expected one where the average one has no inverse.
  Evaluation evaluate(const Array<double>& point);
};

}  // namespace kdr
