// Statistics of the final estimates: reliabilities, tests of the variance components, robust covariance.
#pragma once

#include "linear/iteration.h"
#include "linear/pass.h"
#include "report/degreesoffreedom.h"

namespace kdr {

// The mean over the level-2 units with a least-squares fit of T[i][i] / (s (Z1'Z1)^-1 + T)[i][i], into state.rel2 and
// nrel2, and its table when `shown`.
void level2reliabilities(Pass& pass, IterationState& state, bool shown);
// The same at level 3, from E_k = Z2'Z2 - sum_j Z2'Z1 C_j^-1 Z1'Z2 of the units where it is usable: the mean of
// L[i][i] / (s E_k^-1 + L)[i][i], into state.rel3 and nrel3, and its table.
void level3reliabilities(Pass& pass, IterationState& state, bool shown);

// Chi-square statistics of the variance components: the sum over units with least-squares estimates of their own of the
// squared least-squares residual over its sampling variance.
struct VarianceTests {
  Array<double> stat2, stat3;  // [p], [b]
  int nstat2 = 0, nstat3 = 0;  // units that entered
};

// Fills the statistics. pass.vlsq becomes the least-squares residuals of level 3, missingcode at the head of a unit
// without one.
void variancetests(Pass& pass, VarianceTests& tests);
// Their two tables, each with its note on units left out.
void variancetesttables(const Pass& pass, const VarianceTests& tests);

// The tables of the fixed effects and their ratios at the estimates, and the hypothesis tests: with sigma2 vgamma, or,
// when `weighted`, with vgammaweighted.
void reportfixedeffects(const Pass& pass, const FixedDegrees& degrees, bool weighted);

// The covariance of the fixed effects from the scores of the level-3 units (the cluster sandwich of Liang and Zeger,
// 1986): vgammarobust = V S V over sigma2, with its tables. With `leastsquares` the scores are those of ordinary least
// squares.
void robustcovariance(Pass& pass, const FixedDegrees& degrees, bool leastsquares);

}  // namespace kdr
