// Cumulative logits as binary records of cuts.
//
// With F the logistic function, thresholds t_1 = 0 < t_2 < .. < t_(C-1) and their distances s_c = t_c - t_(c-1):
//   P(y = c) = F(eta + t_c) - F(eta + t_(c-1)) = F(eta + t_c) (1 - F(eta + t_(c-1))) (1 - exp(-s_c)),
// because F(b) - F(a) = F(b) (1 - F(a)) (1 - exp(a - b)). A record of category c is a success at cut c (that a value
// lies at or below it), unless c = C, and a failure at cut c - 1, unless c = 1. No random effect enters the third
// factor of a category c between them, so that it stands before all integrals:
//   L = L of the binary records of cuts + sum over c = 2 .. C - 1 of n_c phi(u_c),  phi(u) = log(1 - exp(-exp(u))),
// where u_c = log s_c keeps the thresholds in order. With s = exp(u):
//   phi' = s / (exp(s) - 1),   phi'' = phi' (1 - s / (1 - exp(-s))) < 0.
// Score and information of the binary records are by s: dL/du = s dL/ds and
//   -d2L/du du' = S H S - diag(s dL/ds), S = diag(s).
#pragma once

#include "estimate/likelihood/unitrecords.h"
#include "estimate/quadrature/frame.h"

namespace kdr {

// The records of cuts of a unit whose y are categories, from 0. The last C - 2 columns of x are those of thresholds: of
// cut c the one of t_c is 1.
[[nodiscard]] Level3Records cutrecords(const Level3Records& records, int categories);

// From the log-likelihood of the cuts of outcomes that fall into these categories to that of the outcomes: adds to
// `value`, and the score by s becomes that by u. `score`: of gamma~ [g], whose last elements belong to thresholds.
void addcategories(const Frame& frame, const SphericalPoint& there, const Array<double>& categories, double& value,
                   double* score);
// The same for information and its scale, once the score by u stands. P: stride of the information, whose rows and
// columns of the thresholds are its last.
void addcategories(const Frame& frame, const SphericalPoint& there, const double* score, std::size_t P,
                   double* information, double* scale);

// u of thresholds that meet the shares of the categories where there are no predictors: gamma~ [g] gets it.
void startthresholds(const Frame& frame, double* gamma);

// How far u may go in a step.
inline constexpr double thresholdreach = 1.0;

}  // namespace kdr
