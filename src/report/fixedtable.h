// The tables of the fixed effects: coefficients with their tests, and ratios with confidence intervals.
#pragma once

#include <span>

#include "core/results.h"

namespace kdr {

// Picks the heading.
enum class TableKind {
  estimates,
  robust,
  leastsquares,
  leastsquaresrobust,
  averagedpv,
  averagedrobustpv,
  averagedmi,
  averagedrobustmi,
  laplace,
  quadrature
};

// Writes the table: coefficient, standard error, t-ratio, degrees of freedom, p-value. `pass` is the pass that the
// estimates come from.
void fixedtable(std::span<const EffectTest> effects, TableKind kind, PassKind pass);

// Writes the fraction of missing information and the relative efficiency of each averaged effect. Nothing for none.
void missingtable(std::span<const MissingShare> shares);

// Writes odds ratios (event-rate ratios of a Poisson run) with 95% intervals. Nothing in a linear run.
void ratiotable(std::span<const EffectTest> effects);

}  // namespace kdr
