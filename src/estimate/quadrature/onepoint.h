// The first-order Laplace approximation with its exact gradient, in the coordinates of the quadrature.
//
// With x = (w, z_1, .., z_J) at the joint modes of level-3 unit k, b_i = (B'e_i; A'd_i in its unit j) and
// H = I + sum W b b':  L_k = sum l - x'x/2 - log|H|/2. With W' = dW/deta, a_i = b'H^-1 b, t = -W' a/2, p = H^-1 sum t b
// and rho = r + t - W b'p the gradient is, by the implicit function theorem at the modes,
//   g: sum rho x;   A_ab: sum d_a [rho z_b + r p_(z_b) - W (H^-1 b)_(z_b)];   B_ab: the same with e_a, w_b and p_w.
#pragma once

#include "estimate/ascent/ascent.h"
#include "estimate/quadrature/spherical.h"

namespace kdr {

// Value and score at a point, by modes that are searched from trial.nodes and left there with their covariances and
// with the sums of the records. `promise`: that of jointmodes.
[[nodiscard]] Evaluation evaluatelaplace(SphericalLikelihood& likelihood, const Array<double>& point,
                                         double promise = exactmodes);

// The problem of an ascent on the approximation. Steps take the information of a quadrature with few points around the
// modes: likelihood.grids.
AscentProblem laplaceascentof(SphericalLikelihood& likelihood);

// Minus the second derivatives at the last accepted point, by central differences of the gradient, of the elements of
// `used`; the others' rows are 0. `scale`: [P] as that of an Evaluation. Empty when a point around it has no value.
// `outer` gets the sum of the outer products of the units' scores.
[[nodiscard]] Array<double> laplaceinformation(SphericalLikelihood& likelihood, const std::vector<bool>& used,
                                               const Array<double>& scale, int& evaluations);

}  // namespace kdr
