// Statistics of the estimates of a finished stage: reliabilities, tests of the variance components, robust covariance.
#pragma once

#include "estimate/linear/fisher.h"
#include "estimate/linear/pass.h"

namespace kdr {

// The standard errors of the variance components at the estimates of the pass, from the information there (fishertype).
// Its sweep leaves D_k^-1 and C_j^-1 of these estimates in the pass.
[[nodiscard]] TauErrors tauerrors(Pass& pass, FisherWork& fisher);

// Level 2: the mean over the units with a least-squares fit of T[i][i] / (s (Z1'Z1)^-1 + T)[i][i]. Level 3, from
// E_k = Z2'Z2 - sum_j Z2'Z1 C_j^-1 Z1'Z2 of the units where it is usable: the mean of L[i][i] / (s E_k^-1 + L)[i][i].
[[nodiscard]] Reliabilities reliabilities(Pass& pass);

// Chi-square statistics of the variance components: the sum over units with least-squares estimates of their own of the
// squared least-squares residual over its sampling variance. Leaves the residuals of level 3 in pass.vlsq.
[[nodiscard]] VarianceTests variancetests(Pass& pass);

// The covariance of the fixed effects from the scores of the independent units (the cluster sandwich of Liang and
// Zeger, 1986), g squared; empty when it is not usable. With `leastsquares` the scores and the covariance are those of
// ordinary least squares.
[[nodiscard]] Array<double> robustcovariance(Pass& pass, bool leastsquares);
// Some coefficient of the level below has fewer than 20 independent units left after its terms.
[[nodiscard]] bool fewunits(const Pass& pass);

}  // namespace kdr
