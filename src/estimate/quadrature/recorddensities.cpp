#include "estimate/quadrature/recorddensities.h"

#include <algorithm>
#include <cmath>

namespace kdr {

namespace {

constexpr double largesteta = 700.0, largestmean = 1.0e100;
constexpr std::size_t padded(std::size_t n) { return (n + nodestep - 1) / nodestep * nodestep; }

}  // namespace

void RecordDensities::fit(std::size_t records) {
  if (eta.size() >= records + nodestep) return;
  for (Array<double>* array : {&eta, &r, &W, &D}) array->reset(records + nodestep);
  work.reset(padded(records) + nodestep);
}

// With e = exp(-|eta|): 1/(1 + e) is the probability of the likelier side, W/n = e/(1 + e)^2, dW/deta = W (1 - 2 mu).
double recorddensities(RecordDensity outcome, std::size_t first, std::size_t count, const double* y, const double* n,
                       RecordDensities& a) {
  const QuadratureLoops& loops = fastestquadratureloops();
  double *eta = a.eta.data() + first, *r = a.r.data() + first, *W = a.W.data() + first, *D = a.D.data() + first;
  double* e = a.work.data();
  const bool counts = outcome == RecordDensity::poisson || outcome == RecordDensity::exposure;
  double sum = 0.0;
  if (counts) {
    for (std::size_t i = 0; i < count; ++i)
      e[i] = std::clamp(eta[i], -largesteta, largesteta) + (n == nullptr ? 0.0 : n[i]);
    for (std::size_t i = 0; i < count; ++i) eta[i] = e[i];
    std::fill(e + count, e + padded(count), 0.0);
    loops.exponentials(e, padded(count));
    for (std::size_t i = 0; i < count; ++i) {
      const double mu = std::min(e[i], largestmean);
      sum += y[i] * eta[i] - mu;
      r[i] = y[i] - mu;
      W[i] = D[i] = mu;
    }
    return sum;
  }
  for (std::size_t i = 0; i < count; ++i) {
    eta[i] = std::clamp(eta[i], -largesteta, largesteta);
    e[i] = -std::fabs(eta[i]);
  }
  std::fill(e + count, e + padded(count), 0.0);
  loops.exponentials(e, padded(count));
  for (std::size_t i = 0; i < count; ++i) {
    const double trials = outcome == RecordDensity::bernoulli || n == nullptr ? 1.0 : n[i];
    const double inverse = 1.0 / (1.0 + e[i]), mu = (eta[i] < 0.0 ? e[i] : 1.0) * inverse;
    sum += y[i] * eta[i] - trials * std::max(eta[i], 0.0);
    r[i] = y[i] - trials * mu;
    W[i] = trials * (e[i] * inverse * inverse);
    D[i] = W[i] * (eta[i] < 0.0 ? (1.0 - e[i]) * inverse : (e[i] - 1.0) * inverse);
    e[i] += 1.0;
  }
  std::fill(e + count, e + padded(count), 1.0);
  loops.logarithms(e, padded(count));
  for (std::size_t i = 0; i < count; ++i)
    sum -= (outcome == RecordDensity::bernoulli || n == nullptr ? 1.0 : n[i]) * e[i];
  return sum;
}

}  // namespace kdr
