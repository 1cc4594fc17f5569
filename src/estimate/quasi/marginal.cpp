#include "estimate/quasi/marginal.h"

#include <cmath>

namespace kdr {

namespace {

double quadratic(const double* M, const double* x, int n) {
  double total = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) total += x[i] * M[i * n + j] * x[j];
  return total;
}

}  // namespace

double marginalpredictor(const MarginalCorrection& correction, const double* d, const double* e, double eta) {
  constexpr double c2 = 0.3458429735;  // (16 sqrt(3) / (15 pi))^2
  const double Q = quadratic(correction.taupi, d, correction.q);
  const double R = quadratic(correction.taubeta, e, correction.r);
  if (correction.link == Link::log) return eta + 0.5 * R + 0.5 * Q;
  return eta / std::sqrt(1.0 + c2 * (Q + R));
}

}  // namespace kdr
