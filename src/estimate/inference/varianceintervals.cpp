#include "estimate/inference/varianceintervals.h"

#include <cmath>

#include "estimate/inference/teststatistics.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr double quantile = 1.959963984540054;  // 0.975 of the normal distribution

// A standard error that says something: not that of a held element, nor one that could not be computed.
bool says(double error) { return error > 0.0 && std::isfinite(error); }

Interval ofvariance(double variance, double error) {
  if (!(variance > 0.0) || !says(error)) return {};
  const double factor = std::exp(quantile * error / variance);
  return {std::isfinite(factor), variance / factor, variance * factor};
}

// `covariance` of the three elements of the tau that make the correlation: (i, i), (i, j), (j, j).
Interval ofcorrelation(double r, const double gradient[3], const double covariance[3][3]) {
  double variance = 0.0;
  for (int a = 0; a < 3; ++a)
    for (int c = 0; c < 3; ++c) variance += gradient[a] * covariance[a][c] * gradient[c];
  if (!(std::fabs(r) < 1.0) || !says(variance)) return {};
  const double z = std::atanh(r), reach = quantile * std::sqrt(variance) / (1.0 - r * r);
  return {true, std::tanh(z - reach), std::tanh(z + reach)};
}

void oftau(const double* T, const Array<double>& errors, const TauErrors& known, std::size_t first, int n,
           std::vector<Interval>& variances, std::vector<Interval>& correlations) {
  const auto place = [&](int i, int j) { return first + packedsize(i) + at(j); };
  if (errors.empty()) return;
  for (int i = 0; i < n; ++i) {
    variances.push_back(ofvariance(T[i * (n + 1)], errors[i * (n + 1)]));
    for (int j = 0; j < i; ++j) {
      const double vi = T[i * (n + 1)], vj = T[j * (n + 1)], r = correlationof(T, n, i, j);
      const std::size_t places[3] = {place(i, i), place(i, j), place(j, j)};
      const double gradient[3] = {-0.5 * r / vi, 1.0 / std::sqrt(vi * vj), -0.5 * r / vj};
      double covariance[3][3];
      for (int a = 0; a < 3; ++a)
        for (int c = 0; c < 3; ++c) covariance[a][c] = known.covariance[places[a] * at(known.order) + places[c]];
      const bool both = variances[at(i)].known && variances[at(j)].known && says(errors[i * n + j]);
      correlations.push_back(both ? ofcorrelation(r, gradient, covariance) : Interval{});
    }
  }
}

}  // namespace

VarianceIntervals varianceintervals(const Estimates& est, const TauErrors& errors, int p, int b) {
  VarianceIntervals made;
  if (!errors.known || errors.covariance.size() < square(errors.order) || errors.order == 0) return made;
  oftau(est.taupi.data(), errors.taupi, errors, 0, p, made.level2, made.correlations2);
  oftau(est.taubeta.data(), errors.taubeta, errors, packedsize(p), b, made.level3, made.correlations3);
  made.sigma2 = ofvariance(est.sigma2, errors.sigma2);
  return made;
}

}  // namespace kdr
