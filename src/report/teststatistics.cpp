#include "report/teststatistics.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "driver/runrecord.h"
#include "kernel/distributions.h"

namespace kdr {

Estimate estimateof(const FixedEffects& effects, bool leastsquares, int g) {
  Estimate row{};
  const double variance = effects.variance[g];
  row.coefficient = effects.gamma[g];
  row.se = variance > 0.0 && std::isfinite(variance) ? std::sqrt(variance) : 0.0;
  row.t = row.se == 0.0 ? 0.0 : row.coefficient / row.se;
  row.df = leastsquares ? run.mdm.nunits1 - run.model.coef.ngamma : effects.degrees.df[g];
  row.rough = !leastsquares && effects.degrees.rough[g] != 0;  // degrees of least squares are exact
  row.tested = row.df > 1 && row.se != 0.0 && std::isfinite(row.t);
  row.p = row.tested ? tprob(row.df, row.t) : 0.0;
  return row;
}

Interval intervalof(const Estimate& estimate) {
  if (!estimate.tested) return {};
  const double reach = tcritical(estimate.df) * estimate.se;
  return {true, estimate.coefficient - reach, estimate.coefficient + reach};
}

Ratio ratioof(const Estimate& estimate) {
  const Interval exponent = intervalof(estimate);
  Ratio ratio{std::exp(estimate.coefficient), {false, std::exp(exponent.low), std::exp(exponent.high)}};
  ratio.interval.known = exponent.known && std::isfinite(ratio.interval.low) && std::isfinite(ratio.interval.high);
  return ratio;
}

ChiSquareTail chisquaretail(int df, double statistic) {
  if (df <= 0 || statistic < df) return {};
  return {false, chisqprob(df, statistic)};
}

int wholedegrees(long long degrees) { return static_cast<int>(std::clamp<long long>(degrees, INT_MIN, INT_MAX)); }

bool variancetested(long long degrees, double chisq) { return degrees >= 1 && std::isfinite(chisq); }

Array<double> variancesof(const Array<double>& covariance, int n, double scale) {
  const auto order = static_cast<std::size_t>(n);
  Array<double> variances(order);
  for (std::size_t i = 0; i < order; ++i) variances[i] = covariance[i * (order + 1)] * scale;
  return variances;
}

double correlationof(const double* matrix, int n, int i, int j) {
  return matrix[i * n + j] / std::sqrt(matrix[i * n + i] * matrix[j * n + j]);
}

}  // namespace kdr
