// Maximum likelihood by adaptive Gauss-Hermite quadrature for Bernoulli, binomial and Poisson outcomes.
//
// Newton steps on taupi, taubeta and gamma (ridgedascent.h) with the observed information: that of the complete data
// less the posterior variance of their score. Each iteration integrates around centres and scales that the iteration
// before has found (quadratureunit.h).
#pragma once

#include <limits>
#include <vector>

#include "estimate/ascent/ridgedascent.h"
#include "estimate/likelihood/engine.h"
#include "estimate/quadrature/quadratureunit.h"
#include "kernel/array.h"

namespace kdr {

struct QuadratureSettings {
  EngineSettings engine;    // one iteration is made whatever the limit
  int points = 0;           // nodes per dimension, 3 or more
  int derivlevel = 2;       // 2: observed information; 1: half the sum of the outer products of the units' scores
  bool diagonalpi = false;  // the off-diagonal elements of taupi are held at 0
  bool diagonalbeta = false;
  double mostnodes = 1.0e6;    // of one integral: beyond, neither memory nor time would do
  double noticeable = 1.0e-3;  // a fall of the log-likelihood that is more than rounding and than what another centring
                               // does
  double farbelow = 1.0;       // a fall below what was reached before after which no estimate is gone on with
  double far = 0.02;           // from the maximum, in standard errors: beyond, the estimates come with a warning
  double nearzero = 2.0;       // a variance below so many of its standard errors may be held near 0 ...
  double larger = 10.0;        // ... if one so many times as large makes the outcomes more likely
  // Every step that stays inside is taken, whatever it does to the log-likelihood, which the next centres correct.
  RidgedPolicy ascent{.firstridge = 0.1,
                      .leastridge = 1.0,
                      .inverse = UsableInverse::pivots,
                      .lowering = Lowering::beforestep,
                      .undefined = Undefined::halve,
                      .freesteps = std::numeric_limits<int>::max(),
                      .halvefirst = true,
                      .fall = 1.0e-3};
};

struct QuadratureResult {
  EngineResult fit;
  Adaptation adaptation;  // of the next iteration
  double highest = 0.0;   // the highest log-likelihood that an iteration ended with; where that is not the last one,
                          // integrated again around its own centres
  double distance = 0.0;  // of the estimates from the maximum in standard errors, the farthest of them, by what the
                          // last step lacked of a whole Newton step
  int inversion = 0;      // of the last information matrix: the result of syminverse
};

// Estimates from `start`, with `adaptation` for the first iteration. Reads the data twice per iteration, and once at
// the beginning for its constants. The result is the same for any number of threads.
[[nodiscard]] QuadratureResult adaptivequadrature(const EngineData& data, const QuadratureSettings& settings,
                                                  const Parameters& start, const Adaptation& adaptation);

// One walk over the data at given parameters and a given adaptation.
struct QuadratureWalk {
  EngineFailure failure = EngineFailure::none;
  double loglikelihood = 0.0;  // without the constant, and without terms of the outcome alone but those of `counts`
  Array<double> score;         // [P] of twice the log-likelihood
  Array<double> information;   // P squared, of twice the log-likelihood
};

struct QuadratureData {
  const QuadratureModel* model = nullptr;
  const RecordSource* source = nullptr;
  int threads = 1, derivlevel = 2;
  double records = 0.0, units2 = 0.0, units3 = 0.0;
  double counts = 0.0;               // Poisson: -sum of log y!
  double combinations = 0.0;         // binomial: the logarithms of the binomial coefficients
  std::vector<QuadratureWork> work;  // of each thread
};

// Counts the data and its constants. False when the source has ended before its last unit.
[[nodiscard]] bool countdata(QuadratureData& data);
// The log-likelihood alone, or with score, information and the next adaptation when that is not null.
QuadratureWalk walk(QuadratureData& data, const Parameters& parameters, const Adaptation& adaptation, Adaptation* next);

}  // namespace kdr
