#include "series/pooling.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "core/constants.h"
#include "estimate/inference/teststatistics.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

using Records = std::span<const SubrunRecord>;

// The mean over the records of what `get` finds in them.
template <class Get>
double meanof(Records records, Get get) {
  double sum = 0.0;
  for (const SubrunRecord& record : records) sum += get(record);
  return sum / static_cast<double>(records.size());
}

template <class Get>
int wholemean(Records records, Get get) {
  long long sum = 0;
  for (const SubrunRecord& record : records) sum += get(record);
  return static_cast<int>(sum / static_cast<long long>(records.size()));
}

// The same, element by element, of an array.
template <class Get>
Array<double> meanarray(Records records, Get get) {
  Array<double> mean(get(records[0]).size());
  for (const SubrunRecord& record : records)
    for (std::size_t i = 0; i < mean.size(); ++i) mean[i] += get(record)[i];
  for (double& x : mean) x /= static_cast<double>(records.size());
  return mean;
}

// f above; 0 for a single sub-run.
double betweenfactor(std::size_t M) {
  const auto m = static_cast<double>(M);
  return M > 1 ? (1.0 + 1.0 / m) / (m - 1.0) : 0.0;
}

// C += f sum_m (x_m - xbar)(x_m - xbar)', n by n. get(record, i) is element i of x_m.
template <class Get>
void addbetween(Array<double>& C, Records records, const Array<double>& mean, Get get) {
  const std::size_t n = mean.size();
  const double f = betweenfactor(records.size());
  Array<double> d(n);
  for (const SubrunRecord& record : records) {
    for (std::size_t i = 0; i < n; ++i) d[i] = get(record, i) - mean[i];
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t j = 0; j < n; ++j) C[i * n + j] += f * d[i] * d[j];
  }
}

// Of one effect, r = between / within.
struct Freedom {
  double df;
  MissingShare share;
};
Freedom freedom(std::size_t M, double within, double between, double complete) {
  constexpr double largest = 2147483647.0;
  const auto m = static_cast<double>(M);
  const double r = between / within, ratio = 1.0 / r + 1.0;
  const double nu = (m - 1.0) * ratio * ratio;
  Freedom made{complete, {}};
  if (M == 1 || !(nu <= largest)) return made;
  made.df = std::min(std::floor(nu), complete);
  made.share.fraction = (r + 2.0 / (nu + 3.0)) / (r + 1.0);
  made.share.efficiency = 1.0 / (1.0 + made.share.fraction / m);
  return made;
}

using Effects = SubrunEffects SubrunRecord::*;

// Complete-data degrees of freedom: counts, or the mean of those of the sub-runs.
FixedDegrees completedegrees(Records records, Effects effects, const PoolFrame& frame) {
  FixedDegrees degrees = frame.degrees.copy();
  if ((records[0].*effects).df.empty()) return degrees;
  degrees.df = meanarray(
      records, [&](const SubrunRecord& r) -> auto& { return (r.*effects).df; });
  degrees.rough.fill(0);
  degrees.method = DegreesMethod::satterthwaite;
  return degrees;
}

PooledCovariance poolcovariance(Records records, Effects effects, Array<double> SubrunEffects::*matrix,
                                const Array<double>& gamma, FixedDegrees degrees, const Model& model) {
  PooledCovariance pooled;
  const std::size_t g = gamma.size();
  // Each matrix is in units of the sigma^2 of its own record.
  Array<double> within(g * g);
  for (const SubrunRecord& record : records)
    for (std::size_t i = 0; i < within.size(); ++i)
      within[i] += record.sigma2 * (record.*effects.*matrix)[i] / static_cast<double>(records.size());
  Array<double> spread(g * g);
  addbetween(spread, records, gamma, [&](const SubrunRecord& r, std::size_t i) { return (r.*effects).gammahat[i]; });
  pooled.known = true;
  pooled.covariance.reset(g * g);
  for (std::size_t i = 0; i < g * g; ++i) pooled.covariance[i] = within[i] + spread[i];
  std::vector<MissingShare> shares;
  for (std::size_t i = 0; i < g; ++i) {
    const std::size_t ii = i * (g + 1);
    const Freedom made = freedom(records.size(), within[ii], spread[ii], degrees.df[i]);
    degrees.df[i] = made.df;
    shares.push_back(made.share);
  }
  pooled.effects = effecttable(gamma, pooled.covariance, degrees);
  const bool several = records.size() > 1;
  if (several) pooled.effects.shares = std::move(shares);
  const Between between{within, spread, static_cast<int>(records.size())};
  addhypotheses(pooled.effects, model, gamma, pooled.covariance, several ? &between : nullptr);
  return pooled;
}

PooledEffects pooleffects(Records records, Effects effects, const PoolFrame& frame, const Model& model) {
  PooledEffects pooled;
  pooled.gamma = meanarray(
      records, [&](const SubrunRecord& r) -> auto& { return (r.*effects).gammahat; });
  pooled.model = poolcovariance(records, effects, &SubrunEffects::vgamma, pooled.gamma,
                                completedegrees(records, effects, frame), model);
  const bool robust = std::none_of(records.begin(), records.end(),
                                   [&](const SubrunRecord& r) { return isabsent((r.*effects).robust[0]); });
  if (robust)
    pooled.robust = poolcovariance(records, effects, &SubrunEffects::robust, pooled.gamma, frame.degrees.copy(), model);
  return pooled;
}

// Element i of the lower triangles of taupi and then taubeta, by rows.
struct TauOrder {
  Array<int> place;       // in the full matrix
  std::size_t firstbeta;  // the first element of taubeta
};

TauOrder tauorder(const SubrunShape& shape) {
  TauOrder order{Array<int>(at(shape.tauorder())), 0};
  std::size_t next = 0;
  for (const int n : {shape.q, shape.r}) {
    if (next != 0) order.firstbeta = next;
    for (int i = 0; i < n; ++i)
      for (int j = 0; j <= i; ++j) order.place[next++] = i * n + j;
  }
  return order;
}

// Covariance and standard errors of the pooled sigma2 and tau elements.
void poolerrors(const SubrunShape& shape, Records records, Pooled& pooled) {
  const TauOrder order = tauorder(shape);
  const std::size_t n = order.place.size();
  const auto element = [&](const Array<double>& taupi, const Array<double>& taubeta, std::size_t i) {
    return i < order.firstbeta ? taupi[order.place[i]] : taubeta[order.place[i]];
  };
  Array<double> tbar(n);
  for (std::size_t i = 0; i < n; ++i) tbar[i] = element(pooled.taupi, pooled.taubeta, i);
  pooled.taucovariance = meanarray(
      records, [](const SubrunRecord& r) -> auto& { return r.taucovariance; });
  addbetween(pooled.taucovariance, records, tbar,
             [&](const SubrunRecord& r, std::size_t i) { return element(r.taupi, r.taubeta, i); });
  pooled.taupierrors = standarderrors(pooled.taucovariance, shape.tauorder(), 0, shape.q);
  pooled.taubetaerrors = standarderrors(pooled.taucovariance, shape.tauorder(), order.firstbeta, shape.r);
  // What is at the edge of its range in some of the sub-runs has no error there, and so none in the mean.
  if (shape.engine)
    for (std::size_t i = 0; i < n; ++i) {
      const auto without = std::count_if(records.begin(), records.end(),
                                         [&](const SubrunRecord& r) { return r.taucovariance[i * (n + 1)] == 0.0; });
      if (without == 0 || tbar[i] == 0.0) continue;
      const bool beta = i >= order.firstbeta;
      Array<double>& errors = beta ? pooled.taubetaerrors : pooled.taupierrors;
      const int size = beta ? shape.r : shape.q, place = order.place[i];
      errors[place] = errors[place % size * size + place / size] = absent;
    }

  double squares = 0.0;
  for (const SubrunRecord& record : records)
    squares += (record.sigma2 - pooled.sigma2) * (record.sigma2 - pooled.sigma2);
  const double within = meanof(records, [](const SubrunRecord& r) { return r.sigma2variance; });
  pooled.sigma2error = standarderror(within + betweenfactor(records.size()) * squares);
  pooled.errorsknown = true;
}

// The statistic of the sub-runs' chi-squares with k degrees of freedom each (Li, Meng, Raghunathan and Rubin, 1991):
// with r = (1 + 1/M) times the variance of their roots,
//   D = (mean / k - (M + 1) / (M - 1) r) / (1 + r)  is F with k and k^(-3/M) (M - 1) (1 + 1/r)^2 degrees of freedom.
template <class Get>
VarianceTest pooledvariancetest(Records records, long long degrees, Get get) {
  const double mean = meanof(records, get), M = static_cast<double>(records.size());
  VarianceTest test = variancetest(degrees, mean);
  if (!test.known || records.size() == 1) return test;
  const double root = meanof(records, [&](const SubrunRecord& r) { return std::sqrt(get(r)); });
  double squares = 0.0;
  for (const SubrunRecord& record : records) squares += std::pow(std::sqrt(get(record)) - root, 2);
  const double r = betweenfactor(records.size()) * squares, k = test.chisquare.df;
  const double D = std::max(0.0, (mean / k - (M + 1.0) / (M - 1.0) * r) / (1.0 + r));
  const double nu = std::pow(k, -3.0 / M) * (M - 1.0) * std::pow(1.0 + 1.0 / r, 2);
  test.chisquare = chisquaretest(test.chisquare.df, k * D, nu);
  return test;
}

VarianceTests pooltests(const SubrunShape& shape, Records records, const PoolFrame& frame) {
  VarianceTests tests;
  tests.units2 = wholemean(records, [](const SubrunRecord& r) { return r.testunits2; });
  tests.units3 = wholemean(records, [](const SubrunRecord& r) { return r.testunits3; });
  for (std::size_t i = 0; i < at(shape.q); ++i)
    tests.level2.push_back(pooledvariancetest(
        records, tests.units2 - static_cast<long long>(frame.nterms2[i]) * tests.units3 - frame.nfixedterms2[i],
        [i](const SubrunRecord& r) { return r.chisq2[i]; }));
  for (std::size_t i = 0; i < at(shape.r); ++i)
    tests.level3.push_back(pooledvariancetest(records, tests.units3 - frame.nterms3[i],
                                              [i](const SubrunRecord& r) { return r.chisq3[i]; }));
  return tests;
}

}  // namespace

PoolFrame poolframe(const ModelRows& rows, const SubrunShape& shape, FixedDegrees degrees) {
  PoolFrame frame{std::move(degrees), Array<int>(at(shape.q)), Array<int>(at(shape.q)), Array<int>(at(shape.r))};
  std::size_t nextpi = 0, nextbeta = 0;
  for (const CoefficientRow& coefficient : rows.coefficients) {
    for (int t = coefficient.firstterm; t < coefficient.firstterm + coefficient.nterms; ++t) {
      const TermRow& term = rows.terms[at(t)];
      if (term.random) frame.nterms3[nextbeta++] = term.neffects;
      if (coefficient.random) ++(term.random ? frame.nterms2 : frame.nfixedterms2)[nextpi];
    }
    nextpi += coefficient.random ? 1 : 0;
  }
  return frame;
}

Pooled pool(const SubrunShape& shape, std::span<const SubrunRecord> records, const PoolFrame& frame,
            const Model& model) {
  Pooled pooled;
  pooled.sigma2fixed = shape.sigma2fixed;
  pooled.engine = shape.engine;
  pooled.M = static_cast<int>(records.size());
  pooled.sigma2 = meanof(records, [](const SubrunRecord& r) { return r.sigma2; });
  pooled.taupi = meanarray(
      records, [](const SubrunRecord& r) -> auto& { return r.taupi; });
  pooled.taubeta = meanarray(
      records, [](const SubrunRecord& r) -> auto& { return r.taubeta; });
  pooled.reliability2 = meanarray(
      records, [](const SubrunRecord& r) -> auto& { return r.reliability2; });
  pooled.reliability3 = meanarray(
      records, [](const SubrunRecord& r) -> auto& { return r.reliability3; });
  pooled.units2 = wholemean(records, [](const SubrunRecord& r) { return r.units2; });
  pooled.units3 = wholemean(records, [](const SubrunRecord& r) { return r.units3; });
  if (!shape.engine) pooled.tests = pooltests(shape, records, frame);
  if (shape.fisher) {
    // Where sigma^2 is held it has no variance; then an information that could not be inverted leaves no variance at
    // all.
    pooled.zerovar = static_cast<int>(std::count_if(records.begin(), records.end(), [&](const SubrunRecord& r) {
      return shape.sigma2fixed
                 ? std::all_of(r.taucovariance.begin(), r.taucovariance.end(), [](double v) { return v == 0.0; })
                 : r.sigma2variance == 0.0;
    }));
    if (pooled.zerovar == 0) poolerrors(shape, records, pooled);
  }
  pooled.effects = pooleffects(records, &SubrunRecord::effects, frame, model);
  if (shape.popaverage) pooled.popaverage = pooleffects(records, &SubrunRecord::popaverage, frame, model);
  return pooled;
}

}  // namespace kdr
