// What the steps of an estimation ask at a point of the parameter space: inverses, log-likelihood, the fixed effects
// that are best there.
#pragma once

#include <optional>

#include "estimate/linear/pass.h"
#include "estimate/linear/posterior.h"

namespace kdr {

// The log-likelihood before and at the parameters at hand; absent before the first iteration.
struct Likelihood {
  double previous;
  double current;
};
[[nodiscard]] inline std::optional<double> reached(const Likelihood& likelihood) {
  return isabsent(likelihood.current) ? std::nullopt : std::optional<double>(likelihood.current);
}

// The variance components are ones that a step can go on from.
[[nodiscard]] bool usableestimates(const Pass& pass, const Estimates& est);

// S = sigma2 t^-1 for t of order n; logdet receives log det t. Returns the result of invertsymmetric.
[[nodiscard]] int scaleinverse(const double* t, int n, double sigma2, Array<double>& S, double& logdet);

// Of both taus. False when one cannot be inverted.
struct ScaledInverses {
  Array<double> S, Sb;                  // sigma2 taupi^-1 and sigma2 taubeta^-1
  double logdetT = 0.0, logdetL = 0.0;  // of taupi and of taubeta
};
[[nodiscard]] bool scaleinverses(const Pass& pass, const Estimates& est, ScaledInverses& inverses);

// Where a sweep at `est` stands, which with `inverses` has to outlive it.
[[nodiscard]] inline PosteriorInput inputat(const Estimates& est, const ScaledInverses& inverses, bool keepmeans) {
  return {est.sigma2, est.gammahat.data(), inverses.S.data(), inverses.Sb.data(), nullptr, keepmeans};
}

// The log-likelihood from the sums of a sweep at sigma2 and the log-determinants of taupi and taubeta, each already
// times the number of its units.
[[nodiscard]] double loglikelihood(const Pass& pass, const PosteriorSums& sums, double sigma2, double logdettaupi,
                                   double logdettaubeta);
[[nodiscard]] double loglikelihood(const Pass& pass, const PosteriorSums& sums, double sigma2,
                                   const ScaledInverses& inverses);

// The generalised least-squares update of a point: vgamma = A^-1, gammahat = vgamma c. Returns false, with both as they
// were, when A is not usable.
[[nodiscard]] bool glsupdate(const Pass& pass, const PosteriorSums& sums, Estimates& est);

}  // namespace kdr
