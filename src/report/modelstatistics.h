// Deviance of the model and its comparison with an alternative one.
#pragma once

namespace kdr {

// Parameters of the model: fixed effects, all elements of both taus, sigma^2 unless it is held. `phase` 1: every
// level-3 unit has a taupi of its own.
[[nodiscard]] long long parametercount(int phase);

// The likelihood-ratio test against the alternative model of DEVIANCE: and DF:.
struct DevianceComparison {
  double statistic;
  int df;
};
[[nodiscard]] DevianceComparison comparisonof(double deviance, long long parameters);

// Writes deviance and number of parameters for the log-likelihood, and the likelihood-ratio test when the run was told
// the deviance of an alternative model. `phase` as above.
void modelstatistics(double loglik, int phase);

}  // namespace kdr
