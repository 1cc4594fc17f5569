// What a pass of the estimation, or an engine at its end, hands back. The report, the variance files, the result store
// of a series and the latent variable regression all read it; nothing else of a pass survives but the current estimates
// in run.est.
//
// Orders: p = ntaupi, b = ntaubeta, g = ngamma.
#pragma once

#include <string>
#include <vector>

#include "core/constants.h"
#include "driver/runrecord.h"
#include "kernel/array.h"
#include "report/degreesoffreedom.h"

namespace kdr {

// What model a pass fits.
enum class PassKind {
  linear,             // the pass of a linear run
  identity,           // the first pass of a Bernoulli, binomial or Poisson run: a linear model of the raw outcome
  pql,                // a linear model of the working outcome
  categories,         // the same over the stacked categories of a multinomial or ordinal run
  populationaverage,  // the last pass of a run whose identity pass was the first: the taus stand still
  laplace6,           // no pass: maximum likelihood by Laplace-6
  quadrature          // and by quadrature, after the last pql pass
};

// How the iterations of a stage ended.
enum class Ending { converged, limit, keyboard };

// Standard errors of the variance components.
struct TauErrors {
  bool asked = false;            // fishertype is not 0
  bool known = false;            // the information could be inverted; the rest is empty otherwise
  Array<double> taupi, taubeta;  // full matrices; 0.0 for a fixed element, missingcode for one not computable
  double sigma2 = 0.0;
  int order = 0;             // NT - 1, elements of taupi and taubeta
  Array<double> covariance;  // order squared, of the elements of the taus
  double sigma2variance = 0.0;
  std::vector<bool> edgepi, edgebeta;  // of an engine, full matrices: at the edge of its range, so without an error
  double stepleft = 0.0;  // the farthest that the next scoring step would move an element, in its standard errors
};

struct Reliabilities {
  Array<double> level2, level3;  // [p], [b]; of no use when no unit entered
  int units2 = 0, units3 = 0;    // units that entered
};

// Chi-square tests of the variances on the diagonals.
struct VarianceTests {
  Array<double> chisq2, chisq3;  // [p], [b]
  Array<long long> df2, df3;     // their degrees of freedom; below 1: too few
  int units2 = 0, units3 = 0;    // units that entered
};

// Fixed effects by ordinary least squares, before a linear run's iterations.
struct LeastSquaresResults {
  Array<double> gamma;   // [g]
  Array<double> vgamma;  // g squared; its covariance is sigma2 times it
  double sigma2 = 0.0;
  Array<double> robust;         // g squared, covariance by the cluster sandwich; empty when it is not usable
  bool fewunits = false;        // too few level-3 units for `robust` to be trusted
  double loglik = missingcode;  // missingcode when the model leaves no residual
};

// What quadrature says of its number of points.
struct QuadraturePoints {
  int points = 0;            // for each effect; 0: not of quadrature
  int next = 0;              // another number that was tried; 0: none
  double change = 0.0;       // of the log-likelihood with that
  double errorchange = 0.0;  // the largest relative change of a standard error
  bool agrees = false;       // both are small
};

struct PassResults {
  PassKind kind = PassKind::linear;
  int macro = 0;               // macro iteration, from 1; 0 in a linear run
  bool heterogeneous = false;  // of the stage with a taupi per level-3 unit

  double fixsigma2 = 0.0;  // what sigma^2 was held at; 0.0: it was estimated
  bool stopped = true;     // the iterations are over

  int iteration = 0;  // the last one
  Ending ending = Ending::converged;
  double loglik = missingcode;
  double marginal = missingcode;  // of an engine: the log-likelihood with all its constants

  Estimates est;  // at the end
  TauErrors errors;
  Reliabilities reliabilities;
  FixedDegrees degrees;      // of the fixed effects
  Array<double> covariance;  // g squared: the covariance of gammahat, by design weights in a weighted run
  Array<double> robust;      // g squared: the cluster sandwich; empty when it is not usable
  bool fewunits = false;     // too few level-3 units for `robust` to be trusted
  VarianceTests tests;
  std::vector<std::string> warnings;  // whole sentences for the head of the results
  std::vector<std::string> notes;     // the same, of what is no fault
  QuadraturePoints quadrature;

  // The taus were not estimated: their tables are those of an earlier pass.
  [[nodiscard]] bool tausstand() const { return kind == PassKind::populationaverage; }
};

}  // namespace kdr
