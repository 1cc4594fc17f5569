// Responses as functions of the linear predictors, and their means over normal random effects.
#pragma once

#include "core/outcome.h"
#include "kernel/array.h"

namespace kdr {

// The K responses at one point of the M linear predictors, with first and second derivatives.
struct ResponseCurve {
  int M = 1, K = 1;
  Array<double> mean, first, second;  // [K], K by M, K by M by M
};
[[nodiscard]] ResponseCurve emptycurve(const Outcome& outcome, int M);
// At eta: means, rates times `count`, probabilities of each category.
void responsecurve(const Outcome& outcome, const double* eta, double count, ResponseCurve& curve);
// Means over N(eta, S), S of order M, of the responses and of the derivatives.
void averagedcurve(const Outcome& outcome, const double* eta, const Array<double>& S, double count,
                   ResponseCurve& curve);

}  // namespace kdr
