// Number of parameters of a model, and the comparison of its deviance with that of an alternative one.
#pragma once

#include "core/model.h"
#include "core/results.h"

namespace kdr {

// Parameters of the model: fixed effects, all elements of both taus, sigma^2 unless it is held. `taupis`: matrices
// taupi, one, or one for every level-3 unit.
[[nodiscard]] long long parametercount(const Model& model, long long taupis);

// An alternative model, fitted elsewhere.
struct Alternative {
  double deviance = 0.0;
  int parameters = 0;
};

// The likelihood-ratio test against an alternative model.
struct DevianceComparison {
  double statistic = 0.0;
  int df = 0;
  ChiSquareTail tail;
};
[[nodiscard]] DevianceComparison comparisonof(double deviance, long long parameters, const Alternative& alternative);

// Fills what follows from the estimates, covariances and the kind of a pass or an engine: degrees of freedom unless
// they stand already, tests of the fixed effects, number of parameters. Failure 3.
void complete(PassResults& results, const Model& model, const UnitCounts& counts);
void complete(LeastSquaresResults& results, const UnitCounts& counts);

}  // namespace kdr
