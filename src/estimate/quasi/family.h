// The outcome types of the non-linear models: mean and variance by the canonical link, their limits, and the cumulants
// of the logit. Functions of one record.
#pragma once

#include <algorithm>
#include <cmath>

#include "core/outcome.h"

namespace kdr {

// binomial: y successes in n trials, logit link; Bernoulli is the case n = 1.
// poisson: a count y with exposure n, log link; constant exposure is the case n = 1.

// The mean of a logit and the variance mu (1 - mu), neither of them by cancellation.
struct LogitMean {
  double mu, variance;
  double small;  // exp(-|eta|): log(1 + exp(eta)) = max(eta, 0) + log1p(small)
};
inline LogitMean logitmean(double eta) {
  const double small = std::exp(-std::fabs(eta));
  const double larger = 1.0 / (1.0 + small), smaller = small * larger;
  return {eta >= 0.0 ? larger : smaller, smaller * larger, small};
}

// Cumulants of a Bernoulli outcome, which are the derivatives of log(1 + exp(eta)); k2 is the variance:
//   k3 = (1 - 2 mu) k2            k4 = (1 - 6 k2) k2             k5 = (1 - 12 k2) k3
//   k6 = (1 - 12 k2) k4 - 12 k3^2                                k7 = (1 - 12 k2) k5 - 36 k4 k3
struct LogitCumulants {
  double k2, k3, k4, k5, k6, k7;
};
inline LogitCumulants logitcumulants(double mu, double k2) {
  const double k3 = (1.0 - 2.0 * mu) * k2;
  const double k4 = (1.0 - 6.0 * k2) * k2;
  const double c = 1.0 - 12.0 * k2;
  const double k5 = c * k3;
  return {k2, k3, k4, k5, c * k4 - 12.0 * k3 * k3, c * k5 - 36.0 * k4 * k3};
}

// Linear predictor, mean and variance of one trial or one unit of exposure.
struct Linked {
  double eta, mu, variance;
};

// From the fitted value of a linear model of y / n, taken as a mean and held to where the link is defined: 0.01 to 0.99
// for the logit, 0.001 and above for the log.
[[nodiscard]] Linked linkedfitted(Link link, double fitted);
// From the linear predictor.
[[nodiscard]] inline Linked linked(Link link, double eta) {
  if (link == Link::logit) {
    const LogitMean mean = logitmean(eta);
    return {eta, mean.mu, mean.variance};
  }
  const double mu = std::exp(eta);
  return {eta, mu, mu};
}
// From the logarithm of a Poisson mean that may not exceed `cap`.
[[nodiscard]] Linked linkedcapped(double eta, double cap);

// Whether a logit lies outside -60 to 60, and the value, -2 or 2, that such a record starts again from.
[[nodiscard]] inline bool strayed(double eta) { return eta < -60.0 || eta > 60.0; }
[[nodiscard]] inline double broughtback(double eta) { return eta < 0.0 ? -2.0 : 2.0; }

// Working weight and working dependent variable of iteratively reweighted least squares (McCullagh and Nelder, 1989,
// 2.5), n trials or exposure:  w = n variance,  z = eta + (y - n mu) / w. The weight handed out is held to
// largestweight.
struct Working {
  double weight, z;
};
constexpr double largestweight = 999999.0;
constexpr double leastweight = 1.0e-4;  // below it a record has next to no say: its outcome is met as well as can be
[[nodiscard]] inline Working workingvalues(const Linked& record, double y, double n) {
  const double w = record.variance * n;
  return {std::min(w, largestweight), record.eta + (y - record.mu * n) / w};
}

}  // namespace kdr
