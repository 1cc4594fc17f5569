#include "nonlinear/family.h"

#include <algorithm>

namespace kdr {

Linked linkedfitted(Family family, double fitted) {
  if (family == Family::binomial) {
    const double mu = std::clamp(fitted, 0.01, 0.99);
    return {std::log(mu / (1.0 - mu)), mu, mu * (1.0 - mu)};
  }
  const double mu = fitted > 0.001 ? fitted : 0.001;
  return {std::log(mu), mu, mu};
}

Linked linkedcapped(double eta, double cap) {
  const Linked record = linked(Family::poisson, eta);
  return record.mu > cap ? Linked{std::log(cap), cap, cap} : record;
}

Density density(Family family, double eta, double y, double n, double constant) {
  constexpr double limit = 700.0, least = 1.0e-14;
  eta = std::clamp(eta, -limit, limit);
  if (family == Family::binomial) {
    const double mu = std::max(logitmean(eta).mu, least);
    const double logdensity = (n - y) * std::log(std::max(1.0 - mu, least)) + y * std::log(mu);
    return {logdensity, y - n * mu, n * mu * (1.0 - mu)};
  }
  const double logmean = n == 1.0 ? eta : std::log(n) + eta;
  const double mean = std::exp(logmean);
  return {y * logmean - mean - constant, y - mean, mean};
}

}  // namespace kdr
