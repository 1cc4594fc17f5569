// The parameters of the maximum-likelihood engines, in matrices and in one vector.
//
// Order of the P elements: the pairs (a, b), a >= b, of taupi row by row, those of taubeta, then gammahat.
#pragma once

#include <cstddef>

#include "core/estimates.h"
#include "kernel/array.h"

namespace kdr {

// A copy of the estimates that an engine works on. It hands them back on success; a failure leaves nothing to restore.
struct Parameters {
  int q = 0, r = 0, g = 0;  // orders of taupi, taubeta, gamma
  Array<double> taupi;      // q squared, full symmetric
  Array<double> taubeta;    // r squared, full symmetric
  Array<double> gamma;      // [g]

  [[nodiscard]] std::size_t ntaupi() const;    // q(q+1)/2
  [[nodiscard]] std::size_t ntaubeta() const;  // r(r+1)/2
  [[nodiscard]] std::size_t count() const;     // P
  [[nodiscard]] Parameters copy() const;
};

// The n by n block of V (order P, row stride P) whose diagonal starts at element `first`.
[[nodiscard]] Array<double> diagonalblock(const double* V, std::size_t P, std::size_t first, std::size_t n);

// The P elements in their order, and the reverse: tau elements in both symmetric places.
[[nodiscard]] Array<double> elementsof(const Parameters& parameters);
[[nodiscard]] Parameters parametersof(int q, int r, int g, const Array<double>& elements);
// Those of the estimates of a model of these orders.
[[nodiscard]] Parameters parametersof(int q, int r, int g, const Estimates& est);

}  // namespace kdr
