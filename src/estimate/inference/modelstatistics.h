// Number of parameters of a model, and the comparison of its deviance with that of an alternative one.
#pragma once

#include <string>

#include "core/model.h"
#include "core/results.h"

namespace kdr {

// Parameters that the model estimates: fixed effects, the free elements of both taus (all but those that DIAGONALIZE...
// or ESTTAU... hold, and one for each group of CONTAU...), sigma^2 unless it is held. `taupis`: matrices taupi, one, or
// one for every level-3 unit.
[[nodiscard]] long long parametercount(const Model& model, long long taupis);

// What compares models that are no parts of each other, smaller being better: -2 log-likelihood and 2, or the logarithm
// of the number of records, for each parameter.
struct InformationCriteria {
  double aic = 0.0, bic = 0.0;
};
[[nodiscard]] InformationCriteria informationcriteria(double loglik, long long parameters, int records);

// An alternative model, fitted elsewhere to the same records.
struct Alternative {
  double deviance = 0.0;
  int parameters = 0;
};

// The likelihood-ratio test against an alternative model: what the larger one gains. `impossible` says in a sentence
// why there is none: as many parameters in both, or a larger model that fits worse, whose statistic is below 0.
struct DevianceComparison {
  ChiSquareTest chisquare;
  std::string impossible;
  // The numbers of parameters are those of one more random effect at a level: a variance that is 0 in the smaller
  // model, with its covariances. Its statistic is then a mixture, half and half, of chi-squares with df - 1 and df
  // degrees of freedom (Self and Liang, 1987), which p overstates.
  bool mixture = false;
  double mixturep = 1.0;
};
// Said beside each comparison of restricted deviances.
inline constexpr const char* samefixedeffects =
    "Deviances of restricted likelihoods compare models with the same fixed effects alone: if the fixed effects of the "
    "two models differ, this test is wrong, and both models are to be fitted by LIKELIHOOD:ML.";
// Why there is none of a run with design weights.
inline constexpr const char* pseudocomparison =
    "With design weights the deviance is that of a pseudo-likelihood, whose differences are no chi-square statistics.";
[[nodiscard]] DevianceComparison comparisonof(double deviance, long long parameters, const Alternative& alternative,
                                              const Model& model, bool twolevel);

// Fills what follows from the estimates, covariances and the kind of a pass or an engine: degrees of freedom unless
// they stand already, tests of the fixed effects, number of parameters.
void complete(PassResults& results, const Model& model, const UnitCounts& counts);
void complete(LeastSquaresResults& results, const UnitCounts& counts);

}  // namespace kdr
