// One EM step of the three-level model, and what it shares with the accelerated steps.
#pragma once

#include "estimate/linear/fisher.h"
#include "estimate/linear/posterior.h"

namespace kdr {

// The EM update of sigma2 waits until the convergence test is over.
struct EmSums {
  double traceacc = 0.0;
  double rss = 0.0;
};

// Updates gammahat, vgamma, taupi, taubeta (the per-unit `hettaupi` in the heterogeneous stage, null otherwise) and the
// log-likelihood, which belongs to the parameters that the step began with. Failures 11, 12 and 15 for what cannot be
// inverted.
[[nodiscard]] Failure emstep(Pass& pass, Likelihood& likelihood, EmSums& sums, UnitTable<double>* hettaupi);

// The generalised least-squares update: vgamma = A^-1, gammahat = vgamma c. Returns false, with both as they were, when
// A is not usable.
[[nodiscard]] bool glsupdate(Pass& pass, const PosteriorSums& sums);

// The variance components are ones that a step can go on from.
[[nodiscard]] bool usableestimates(const Pass& pass);

// S = sigma2 t^-1 for t of order n; logdet receives log det t. Returns the result of syminverse.
[[nodiscard]] int scaleinverse(const double* t, int n, double sigma2, Array<double>& S, double& logdet);

// The log-likelihood from the sums of a sweep and the log-determinants of taupi and taubeta, each already times the
// number of its units.
[[nodiscard]] double loglikelihood(const Pass& pass, const PosteriorSums& sums, double logdettaupi,
                                   double logdettaubeta);

}  // namespace kdr
