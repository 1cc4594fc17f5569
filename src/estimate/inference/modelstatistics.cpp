#include "estimate/inference/modelstatistics.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "estimate/inference/degreesoffreedom.h"
#include "estimate/inference/teststatistics.h"

namespace kdr {

namespace {

long long triangle(long long n) { return n * (n + 1) / 2; }

}  // namespace

long long parametercount(const Model& model, long long taupis) {
  return model.coef.ngamma + triangle(model.coef.ntaubeta) + taupis * triangle(model.coef.ntaupi) +
         (model.restrictions.fixsigma2 ? 0 : 1);
}

DevianceComparison comparisonof(double deviance, long long parameters, const Alternative& alternative) {
  DevianceComparison comparison;
  comparison.statistic = std::fabs(deviance - alternative.deviance);
  comparison.df = static_cast<int>(std::min<long long>(std::llabs(parameters - alternative.parameters), INT_MAX));
  comparison.tail = chisquaretail(comparison.df, comparison.statistic);
  return comparison;
}

void complete(PassResults& results, const Model& model, const UnitCounts& counts) {
  if (results.degrees.df.empty()) results.degrees = degreesoffreedom(modelrows(model), counts);
  results.parameters = parametercount(model, results.heterogeneous ? counts.units3 : 1);
  const Array<double>& gamma = results.est.gammahat;
  results.effects = effecttable(gamma, results.covariance, results.degrees);
  results.robusteffects = effecttable(gamma, results.robust, results.degrees);
  addhypotheses(results.effects, model, gamma, results.covariance);
  addhypotheses(results.robusteffects, model, gamma, results.robust);
}

// The degrees of freedom of least squares are exact.
void complete(LeastSquaresResults& results, const UnitCounts& counts) {
  const auto g = static_cast<int>(results.gamma.size());
  FixedDegrees degrees{Array<int>(results.gamma.size()), Array<char>(results.gamma.size())};
  degrees.df.fill(counts.records - g);
  results.parameters = g + 1;
  results.effects = effecttable(results.gamma, results.vgamma, degrees, results.sigma2);
  results.robusteffects = effecttable(results.gamma, results.robust, degrees);
}

}  // namespace kdr
