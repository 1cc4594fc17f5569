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
  constexpr double c2 = 0.3458429735, c2squared = 0.11960736231932169, c2cubed = 0.04136536583700607;
  const double Q = quadratic(correction.taupi, d, correction.q);
  const double R = quadratic(correction.taubeta, e, correction.r);
  if (correction.link == Link::log) return eta + 0.5 * R + 0.5 * Q;
  const double c3 = c2 - c2squared * Q + c2cubed * Q * Q / (1.0 + c2 * Q);
  const double p = (1.0 + c2 * Q) * (1.0 + c3 * R);
  return p > 0.0 ? eta / std::sqrt(p) : eta;
}

}  // namespace kdr
