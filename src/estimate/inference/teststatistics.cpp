#include "estimate/inference/teststatistics.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <utility>

#include "kernel/distributions.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

Interval intervalof(const EffectTest& row) {
  if (!row.tested) return {};
  const double critical = row.fractional ? tquantile(row.df) : tcritical(static_cast<int>(row.df));
  const double reach = critical * row.se;
  return {true, row.coefficient - reach, row.coefficient + reach};
}

// The interval of the exponent.
Interval ratiointervalof(const Interval& interval) {
  Interval ratio{false, std::exp(interval.low), std::exp(interval.high)};
  ratio.known = interval.known && std::isfinite(ratio.low) && std::isfinite(ratio.high);
  return ratio;
}

}  // namespace

EffectTest effecttest(double coefficient, double variance, double df, bool rough, DegreesMethod method) {
  EffectTest row;
  row.coefficient = coefficient;
  row.se = variance > 0.0 && std::isfinite(variance) ? std::sqrt(variance) : 0.0;
  row.t = row.se == 0.0 ? 0.0 : row.coefficient / row.se;
  row.df = df;
  row.rough = rough;
  row.fractional = method != DegreesMethod::counts;
  row.tested = row.df > (row.fractional ? 0.0 : 1.0) && row.se != 0.0 && std::isfinite(row.t);
  row.p = row.tested ? tprob(row.df, row.t) : 0.0;
  row.interval = intervalof(row);
  row.ratio = std::exp(row.coefficient);
  row.ratiointerval = ratiointervalof(row.interval);
  return row;
}

EffectTable effecttable(const Array<double>& gamma, const Array<double>& covariance, const FixedDegrees& degrees,
                        double scale) {
  EffectTable table;
  if (covariance.empty()) return table;
  const std::size_t n = gamma.size();
  for (std::size_t g = 0; g < n; ++g)
    table.rows.push_back(
        effecttest(gamma[g], covariance[g * (n + 1)] * scale, degrees.df[g], degrees.rough[g] != 0, degrees.method));
  return table;
}

ChiSquareTest chisquaretest(int df, double statistic, double df2) {
  const bool ratio = df2 > 0.0 && std::isfinite(df2);
  return {statistic, df, ratio ? df2 : 0.0, ratio ? fprob(df, df2, statistic / df) : chisqprob(df, statistic)};
}

VarianceTest variancetest(long long degrees, double chisq) {
  if (degrees < 1 || !std::isfinite(chisq)) return {false, {chisq}};
  return {true, chisquaretest(static_cast<int>(std::min<long long>(degrees, INT_MAX)), chisq)};
}

double correlationof(const double* matrix, int n, int i, int j) {
  return matrix[i * n + j] / std::sqrt(matrix[i * n + i] * matrix[j * n + j]);
}

double standarderror(double variance) { return variance >= 0.0 ? std::sqrt(variance) : absent; }

Array<double> standarderrors(const Array<double>& covariance, int order, std::size_t first, int n) {
  Array<double> errors(square(n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j, ++first)
      errors[i * n + j] = errors[j * n + i] = standarderror(covariance[first * at(order + 1)]);
  return errors;
}

}  // namespace kdr
