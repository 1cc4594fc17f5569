// The parameters of the maximum-likelihood engines in one vector, and the steps that keep them usable.
//
// Order of the P elements: the pairs (a, b), a >= b, of taupi row by row, those of taubeta, then gammahat.
#pragma once

#include <cstddef>
#include <functional>

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

// parameters += delta (P), tau elements in both symmetric places.
void addstep(Parameters& parameters, const double* delta);

// dest (n(n+1)/2) += D' vec(R) for an n by n matrix R, D the duplication matrix: (a, a) gets R_aa, (a, b) gets
// R_ab + R_ba.
void addduplicated(double* dest, const double* R, int n);

// `scale` times the n by n block of V (order P, row stride P) whose diagonal starts at element `first`.
[[nodiscard]] Array<double> diagonalblock(const double* V, std::size_t P, std::size_t first, std::size_t n,
                                          double scale);

// The standard errors sqrt(scale V_ii) of n(n+1)/2 consecutive diagonal elements of V (order P, row stride P) from
// element `first` on, as a full symmetric matrix; 0.0 for an element that is not above 0.0. Returns how many those are.
int standarderrormatrix(const double* V, std::size_t P, std::size_t first, int n, double scale, Array<double>& matrix);

// The ridge of Levenberg and Marquardt on the diagonal of an information matrix. value -1.0: none is in use.
struct Ridge {
  double value = -1.0;
  // Adds the ridge, when one is in use, to the diagonal of H (order P), on top of what was added before. False when it
  // has grown beyond 1e20, or beyond 1e6 times the largest diagonal element.
  [[nodiscard]] bool addto(double* H, std::size_t P) const;
  // The next ridge after a failure: ten times the one in use, or ten times `first`.
  void raise(double first);
};

// Adds delta to `parameters`, halving it until `usable` accepts the result; `between`, when not null, is called at each
// halving. At most eight trials; a success at the eighth counts as a failure, and leaves the parameters where that
// trial put them. Other failures put them back. Returns true on success.
bool trialstep(Parameters& parameters, double* delta, const std::function<bool(Parameters&)>& usable,
               const std::function<void()>& between);

}  // namespace kdr
