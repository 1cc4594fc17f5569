// Laplace approximations with their exact gradient, in the coordinates of the quadrature: of first order for every
// outcome, and of sixth order (Laplace-6) for Bernoulli outcomes.
//
// With x = (w, z_1, .., z_J) at the joint modes of level-3 unit k, b_i = (B'e_i; A'd_i in its unit j) and
// H = I + sum W b b':  L_k = sum l - x'x/2 - log|H|/2, and + log(1 - S) in the sixth order (sixthorder.h).
// With W' = dW/deta, a_i = b'H^-1 b, t = -W' a/2 + dlog(1 - S)/deta, p = H^-1 sum t b and rho = r + t - W b'p the
// gradient is, by the implicit function theorem at the modes,
//   g: sum rho x;   A_ab: sum d_a [rho z_b + r p_(z_b) - W ((I + 2 D H^-1 N) H^-1 b)_(z_b) + 2 D (H^-1 n)_(z_b)];
//   B_ab: the same with e_a, w_b and p_w,
// (With design weights a level-2 unit's terms of l, of x'x and of log|I + A'(sum W dd')A| count as so many units, and
// so do its records in these sums: what copies of it give, of which each has effects of its own.) where N = sum n_i
// b_i' and n_i = F_i b_i + 5/24 k3_i a_i sum_l k3_l a_l b_l over its unit, both 0 in the first order.
#pragma once

#include "estimate/ascent/ascent.h"
#include "estimate/quadrature/spherical.h"

namespace kdr {

// Value and score at a point, by modes that are searched from trial.nodes and left there with their covariances and
// with the sums of the records.
[[nodiscard]] Evaluation evaluatelaplace(SphericalLikelihood& likelihood, const Array<double>& point);

// The problem of an ascent on the approximation. Steps take the information of a quadrature with few points around the
// modes, likelihood.grids; the exact one comes from differences of the gradient. `outer` is the sum of the
// outer products of the units' scores.
AscentProblem laplaceascentof(SphericalLikelihood& likelihood);

}  // namespace kdr
