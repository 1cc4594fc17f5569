// What every maximum-likelihood engine is given, what it tells while it runs and what it hands back.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/outcome.h"
#include "estimate/ascent/ridgedascent.h"
#include "estimate/likelihood/parameters.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

enum class Engine { laplace6, quadrature };

// What an engine is told of the data. The design outlives the engine.
struct EngineData {
  Family family = Family::bernoulli;
  const Design* design = nullptr;
  int npi = 0, nbeta = 0;               // level-1 and level-2 coefficients
  int units3 = 0;                       // J3
  std::size_t units2 = 0, records = 0;  // J2, N
  RecordSource source;
};

// Why an engine, or one of its evaluations, has failed.
enum class EngineFailure {
  none,
  data,            // the source has ended before its last unit
  toomanyeffects,  // for the nodes of quadrature
  nodes,           // no nodes for this number of points
  centre3,         // the covariance of a level-3 unit's effects is none
  centre2,         // that of a level-2 unit's
  unsettled,       // the modes of the random effects have not settled
  notdefinite,     // no ridge gives a step
  nostep,          // no step stays inside the parameter space
};

// The line of a failure; empty for none, and for one that has no words of its own.
[[nodiscard]] const char* problemwords(Engine engine, EngineFailure failure);

// What an engine tells on its way.
struct EngineEvent {
  enum class Kind {
    begun,
    scoresweep,   // another sweep for the modes where an iteration begins
    valuesweep,   // and at a trial
    ridgeraised,  // of the ascent, as the next three
    ridgelowered,
    stephalved,
    fallen,
    iteration,  // one is finished: `number`, at the log-likelihood `loglik`
    undefined,  // the likelihood has no sixth-order term here: the step is that of the first-order Laplace
    problem,    // an evaluation has failed, not necessarily the engine; `number` sweeps for `unsettled`
    limit,      // the iterations ended at their limit
    checked,    // quadrature tries its results with `number` points
    heavy,      // an evaluation with `number` points takes many `seconds` of one core
    marginal,   // the marginal log-likelihood at the end: `loglik`
  };
  Kind kind = Kind::begun;
  int number = 0;
  double loglik = 0.0;
  EngineFailure failure = EngineFailure::none;
  double seconds = 0.0;
};

// How an engine runs.
struct EngineSettings {
  int iterations = 50;  // most of them
  int threads = 1;      // of a walk over the units; they change no byte of the results
  // Both may be empty. Asked at the end of an iteration, in Laplace-6 at that of the sweeps for the modes, too: true
  // ends the iterations behind the one at hand.
  std::function<bool()> stopasked;
  std::function<void(const EngineEvent&)> tell;
};

enum class EngineEnd {
  failed,        // no result: the caller's estimates stand
  noiterations,  // none was allowed, or the user stopped before the first: estimates and likelihood as they came in
  brokenoff,     // the estimates are those of the last iteration before a failure; nothing else stands
  estimated
};

struct EngineResult {
  EngineEnd end = EngineEnd::failed;
  EngineFailure failure = EngineFailure::none;
  Parameters estimates;
  int iteration = 0;       // finished iterations; in the heading of the report
  bool converged = false;  // no limit and no user ended the iterations
  bool stopped = false;    // the user did
  double loglik = 0.0;     // without constants of the outcome alone, less N/2 log(2 pi)
  double marginal = 0.0;   // the marginal log-likelihood with all its constants
  // An earlier iteration has seen a log-likelihood so much higher that these estimates are not to be gone on with.
  bool farbelow = false;
  Array<double> covariance;                     // P squared: of all parameters in their order
  Array<double> robust;                         // the same by the sandwich of the level-3 units; empty: none
  Array<double> taucovariance;                  // its block of the elements of taupi and taubeta
  Array<double> vgamma;                         // g squared: its block of gamma
  Array<double> setaupi, setaubeta;             // q squared, r squared: standard errors of the elements, symmetric, as
                                                // `standarderrors` makes them
  bool completepi = true, completebeta = true;  // every free element of the tau has one
  Array<double> robustpi, robustbeta;           // the same by `robust`
  std::vector<std::string> warnings;            // whole sentences for the head of the results
};

// Hands an event to whoever listens.
inline void tell(const EngineSettings& settings, const EngineEvent& event) {
  if (settings.tell) settings.tell(event);
}

// What an ascent tells, as the engine's events.
void tellstep(const EngineSettings& settings, AscentEvent event, const RidgedAscent& ascent);

// taucovariance, vgamma and the standard errors from the covariance of all parameters, which stands.
void takecovariance(EngineResult& result);

}  // namespace kdr
