#include "estimate/inference/varianceshares.h"

#include <cmath>
#include <numbers>
#include <vector>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// x' M x, n squared.
double form(const double* x, const double* M, std::size_t n) {
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += x[i] * dot(M + i * n, x, n);
  return sum;
}

// Means over a standard normal by the trapezoidal rule, which for such functions is as good as exact.
constexpr int half = 80;
constexpr double width = 0.1;  // of a step, to 8 standard deviations on both sides
template <class Of>
double overnormal(Of of) {
  double sum = 0.0;
  for (int i = -half; i <= half; ++i) {
    const double z = width * i;
    sum += of(z) * std::exp(-0.5 * z * z);
  }
  return sum * width / std::sqrt(2.0 * std::numbers::pi);
}

// Correlations of two outcomes 0 or 1 whose logits are eta + v + u: with both effects in common, and with v alone.
void logitresponse(double eta, double level2, double level3, VarianceShares& shares) {
  const double d2 = std::sqrt(level2), d3 = std::sqrt(level3);
  double mean = 0.0, both = 0.0;
  const double same3 = overnormal([&](double v) {
    double first = 0.0, second = 0.0;
    first = overnormal([&](double u) { return 1.0 / (1.0 + std::exp(-(eta + d3 * v + d2 * u))); });
    second = overnormal([&](double u) {
      const double p = 1.0 / (1.0 + std::exp(-(eta + d3 * v + d2 * u)));
      return p * p;
    });
    const double weight = std::exp(-0.5 * v * v) * width / std::sqrt(2.0 * std::numbers::pi);
    mean += first * weight;
    both += second * weight;
    return first * first;
  });
  const double variance = mean * (1.0 - mean);
  shares.response = true;
  shares.responsesame2 = (both - mean * mean) / variance;
  shares.responsesame3 = (same3 - mean * mean) / variance;
}

// Of counts with the mean exp(eta + v + u) n.
void logresponse(double mean, double dispersion, double level2, double level3, VarianceShares& shares) {
  const double common3 = mean * mean * std::expm1(level3), common2 = mean * mean * std::expm1(level2 + level3);
  shares.response = true;
  shares.responsesame2 = common2 / (dispersion * mean + common2);
  shares.responsesame3 = common3 / (dispersion * mean + common2);
}

}  // namespace

VarianceShares variancesharesof(const Estimates& est, const ShareRequest& request) {
  const DesignMoments& moments = request.moments;
  const std::size_t g = moments.M1.size();
  const double n = moments.records, mean = dot(est.gammahat.data(), moments.M1.data(), g) / n;
  VarianceShares shares;
  shares.made = true;
  shares.fixed = (form(est.gammahat.data(), moments.MM.data(), g) - n * mean * mean) / (n - 1.0);
  shares.level2 = dot(est.taupi.data(), moments.Z1Z1.data(), est.taupi.size()) / n;
  shares.level3 = dot(est.taubeta.data(), moments.Z2Z2.data(), est.taubeta.size()) / n;
  const double random = shares.level2 + shares.level3, rate = std::exp(mean + 0.5 * random) * moments.count;
  const Link link = request.outcome.link();
  // The over-dispersion of counts; that of logits has no scale of its own.
  const double dispersion = link == Link::log && est.sigma2 > 0.0 ? est.sigma2 : 1.0;
  shares.level1 = link == Link::identity ? est.sigma2
                  : link == Link::log    ? std::log1p(dispersion / rate)
                                         : std::numbers::pi * std::numbers::pi / 3.0;
  const double total = shares.fixed + random + shares.level1;
  shares.marginal = shares.fixed / total;
  shares.conditional = (shares.fixed + random) / total;

  double level2 = shares.level2, level3 = shares.level3;
  if (request.at) {
    level2 = form(request.at->z1.data(), est.taupi.data(), request.at->z1.size());
    level3 = form(request.at->z2.data(), est.taubeta.data(), request.at->z2.size());
  }
  const double level1 = link == Link::log
                            ? std::log1p(dispersion / (std::exp(mean + 0.5 * (level2 + level3)) * moments.count))
                            : shares.level1;
  const double all = level1 + level2 + level3;
  shares.same2 = (level2 + level3) / all;
  shares.same3 = level3 / all;
  if (link == Link::logit) logitresponse(mean, level2, level3, shares);
  if (link == Link::log)
    logresponse(std::exp(mean + 0.5 * (level2 + level3)) * moments.count, dispersion, level2, level3, shares);

  shares.units2 = moments.squares2 / n;
  shares.units3 = moments.squares3 / n;
  const double same2 = shares.response ? shares.responsesame2 : shares.same2;
  const double same3 = shares.response ? shares.responsesame3 : shares.same3;
  shares.designeffect = 1.0 + (shares.units2 - 1.0) * same2 + (shares.units3 - shares.units2) * same3;
  shares.effective = n / shares.designeffect;
  if (!request.null) return shares;
  shares.against = true;
  shares.explained1 = 1.0 - est.sigma2 / request.null->sigma2;
  shares.explained2 = 1.0 - est.taupi[0] / request.null->taupi;
  if (!est.taubeta.empty()) shares.explained3 = 1.0 - est.taubeta[0] / request.null->taubeta;
  return shares;
}

}  // namespace kdr
