// Maximum likelihood by adaptive Gauss-Hermite quadrature for Bernoulli, binomial and Poisson outcomes.
//
// Newton steps on taupi, taubeta and gamma with the observed information by Louis's identity (1982), a ridge in the
// manner of Levenberg and Marquardt, and halving of steps that leave the parameter space. Each iteration integrates
// around centres and scales that the iteration before has found (quadratureunit.h).
#pragma once

#include <string>
#include <vector>

#include "core/outcome.h"
#include "estimate/likelihood/parameters.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/quadrature/quadratureunit.h"
#include "kernel/array.h"
#include "kernel/constants.h"

namespace kdr {

struct QuadratureSettings {
  Family outcome = Family::bernoulli;
  int points = 0;           // nodes per dimension, 3 or more
  int iterations = 0;       // upper bound; one is made whatever it holds
  int derivlevel = 2;       // 2: observed information; 1: half the sum of the outer products of the units' scores
  bool diagonalpi = false;  // the off-diagonal elements of taupi are held at 0
  bool diagonalbeta = false;
  double leastridge = 1.0;  // a ridge in use is divided by 10 after each iteration while it is above this
  int threads = 1;
  // May be null. `interrupted` is asked at the end of each iteration: true stops behind it. `console` gets marks and
  // whole lines as they come.
  bool (*interrupted)() = nullptr;
  void (*console)(const char* text) = nullptr;
};

enum class QuadratureFailure { none, toomanyeffects, nodes, centre3, centre2, ridge, step };

struct QuadratureResult {
  int code = 0;  // 0: nothing here is usable; 1: the estimates are
  // Whether the estimation came to its end, so that all that follows `parameters` and `adaptation` exists.
  bool finished = false;
  QuadratureFailure failure = QuadratureFailure::none;
  int iteration = 0;       // finished iterations
  bool converged = false;  // else the iterations met their bound, or were stopped
  Parameters parameters;
  Adaptation adaptation;       // of the next iteration
  double loglikelihood = 0.0;  // the sum of the logarithms of the integrals less N/2 log(2 pi)
  double marginal = 0.0;       // the marginal log-likelihood, binomial coefficients included
  double highest = 0.0;        // the highest log-likelihood that an iteration ended with; where that is not the last
                               // one, integrated again around its own centres
  double distance = 0.0;       // of the estimates from the maximum in standard errors, the farthest of them, by what
                               // the last step lacked of a whole Newton step
  int inversion = 0;           // of the last information matrix: the result of syminverse
  Array<double> V;             // P squared: the inverse of the information of twice the log-likelihood
  Array<double> taupise;       // q squared; 0.0 for an element that has none
  Array<double> taubetase;     // r squared
  bool taupiseusable = false;  // no variance element was 0 or less, and the inversion has not failed
  bool taubetaseusable = false;
  Array<double> vgamma;               // g squared: 2 V of gamma
  Array<double> vtau;                 // (P2 + P3) squared: 2 V of the tau elements
  std::vector<std::string> warnings;  // whole sentences for the head of the results
};

// The line of a failure: "There are too many random effects for AGQ!" and the like; empty for none. All but that of
// `nodes` are for the console, too.
[[nodiscard]] const char* failureline(QuadratureFailure failure);

// Estimates from `start`, with `adaptation` for the first iteration. Reads the data twice per iteration, and once at
// the beginning for its size. The result is the same for any number of threads.
QuadratureResult adaptivequadrature(const QuadratureSettings& settings, int npi, int nbeta, const Design& design,
                                    RecordSource& source, const Parameters& start, const Adaptation& adaptation);

// One walk over the data at given parameters and a given adaptation.
struct QuadratureWalk {
  UnitStatus status = UnitStatus::fine;
  double loglikelihood = 0.0;  // without the constant, and without terms of the outcome alone but those of `counts`
  Array<double> score;         // [P] of twice the log-likelihood
  Array<double> information;   // P squared, of twice the log-likelihood
};

struct QuadratureData {
  const QuadratureModel* model = nullptr;
  RecordSource* source = nullptr;
  int threads = 1, derivlevel = 2;
  double records = 0.0, units2 = 0.0, units3 = 0.0;
  double counts = 0.0;               // Poisson: -sum of log y!
  double combinations = 0.0;         // binomial: the logarithms of the binomial coefficients
  std::vector<QuadratureWork> work;  // of each thread
};

// Counts the data and its constants.
void countdata(QuadratureData& data);
// The log-likelihood alone, or with score, information and the next adaptation when that is not null.
QuadratureWalk walk(QuadratureData& data, const Parameters& parameters, const Adaptation& adaptation, Adaptation* next);

}  // namespace kdr
