#include "estimate/inference/modelstatistics.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "estimate/inference/degreesoffreedom.h"
#include "estimate/inference/teststatistics.h"
#include "estimate/inference/varianceintervals.h"
#include "kernel/distributions.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Free elements of a tau of order n.
long long freeelements(int n, const TauHeld& held) {
  long long count = 0;
  std::size_t packed = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j, ++packed) {
      const bool zero = held.diagonal && i != j;
      const bool fixed =
          held.fixed != nullptr && at(i * n + j) < held.fixed->size() && !isabsent((*held.fixed)[at(i * n + j)]);
      const bool follows = held.equal != nullptr && packed < held.equal->size() && (*held.equal)[packed] < 0;
      count += zero || fixed || follows ? 0 : 1;
    }
  return count;
}

// One more random effect at a level adds its variance and, but in a diagonal tau, a covariance with each of the others.
// `order` is that of the larger model.
bool onemore(int df, int order, bool diagonal) { return df == (diagonal ? 1 : order); }

}  // namespace

long long parametercount(const Model& model, long long taupis) {
  const Restrictions& r = model.restrictions;
  const long long pi = freeelements(model.coef.ntaupi, r.of(Tau::pi));
  const long long beta = freeelements(model.coef.ntaubeta, r.of(Tau::beta));
  return model.coef.ngamma + beta + taupis * pi + (r.fixsigma2 ? 0 : 1);
}

InformationCriteria informationcriteria(double loglik, long long parameters, int records) {
  const auto count = static_cast<double>(parameters);
  return {-2.0 * loglik + 2.0 * count, -2.0 * loglik + count * std::log(static_cast<double>(records))};
}

DevianceComparison comparisonof(double deviance, long long parameters, const Alternative& alternative,
                                const Model& model, bool twolevel) {
  // Deviances that agree to as many digits are equal: one of them was typed, and both are those of a stopped iteration.
  constexpr double digits = 1.0e-7;
  const bool larger = parameters > alternative.parameters;
  const int df = static_cast<int>(std::min<long long>(std::llabs(parameters - alternative.parameters), INT_MAX));
  double gain = larger ? alternative.deviance - deviance : deviance - alternative.deviance;
  if (std::fabs(gain) <= digits * std::fabs(deviance) && df > 0) gain = 0.0;
  DevianceComparison comparison;
  comparison.chisquare = {gain, df, 0.0, 1.0};
  if (df == 0) {
    comparison.impossible =
        "The two models have the same number of parameters, so that neither is a part of the other.";
    return comparison;
  }
  if (gain < 0.0) {
    comparison.impossible =
        "The model with more parameters fits worse, so that the other one is no part of it, or was fitted to other "
        "records.";
    return comparison;
  }
  comparison.chisquare = chisquaretest(df, gain);
  const Restrictions& r = model.restrictions;
  const int more = larger ? 0 : 1;
  comparison.mixture = onemore(df, model.coef.ntaupi + more, r.diagtaupi) ||
                       (!twolevel && onemore(df, model.coef.ntaubeta + more, r.diagtaubeta));
  if (comparison.mixture && gain > 0.0)
    comparison.mixturep = 0.5 * (comparison.chisquare.p + (df == 1 ? 0.0 : chisqprob(df - 1, gain)));
  return comparison;
}

void complete(PassResults& results, const Model& model, const UnitCounts& counts) {
  if (results.degrees.df.empty()) results.degrees = degreesoffreedom(modelrows(model), counts);
  if (results.robustdegrees.df.empty())
    results.robustdegrees = results.degrees.method == DegreesMethod::counts
                                ? results.degrees.copy()
                                : degreesoffreedom(modelrows(model), counts);
  results.parameters = parametercount(model, results.heterogeneous ? counts.units3 : 1);
  const Array<double>& gamma = results.est.gammahat;
  results.effects = effecttable(gamma, results.covariance, results.degrees);
  results.robusteffects = effecttable(gamma, results.robust, results.robustdegrees);
  if (!results.heterogeneous && !results.tausstand() && results.kind != PassKind::identity)
    results.intervals = varianceintervals(results.est, results.errors, model.coef.ntaupi, model.coef.ntaubeta);
  addhypotheses(results.effects, model, gamma, results.covariance);
  addhypotheses(results.robusteffects, model, gamma, results.robust);
}

// The degrees of freedom of least squares are exact.
void complete(LeastSquaresResults& results, const UnitCounts& counts) {
  const auto g = static_cast<int>(results.gamma.size());
  FixedDegrees degrees{Array<double>(results.gamma.size()), Array<char>(results.gamma.size())};
  degrees.df.fill(counts.records - g);
  results.parameters = g + 1;
  results.effects = effecttable(results.gamma, results.vgamma, degrees, results.sigma2);
  results.robusteffects = effecttable(results.gamma, results.robust, degrees);
}

}  // namespace kdr
