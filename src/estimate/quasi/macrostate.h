// What a non-linear run carries from pass to pass.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "estimate/linear/designmoments.h"
#include "estimate/linear/iteration.h"
#include "estimate/linear/recordunits.h"
#include "estimate/linear/unitresults.h"

namespace kdr {

// How the macro iterations go on behind a pass.
enum class MacroEnd {
  goeson,
  converged,
  keyboard,
  limit,
  separated,
  lost,      // the estimates have settled, but the search for the maximum of the last pass found none
  failed,    // a pass has no results, and a maximum-likelihood engine goes on without
  noaverage  // of the population average alone: it has no results, but an engine has
};

// What is known of separation (separation.h).
struct Separation {
  std::vector<int> effects;           // of the reduced model, that have no finite estimate
  std::vector<std::string> warnings;  // a sentence or two for each cause
  bool searched = false;              // findseparation has been here

  [[nodiscard]] bool known() const { return !warnings.empty(); }
};

// The random effects by an engine: by integration, of one point the modes.
struct EnginePosteriors {
  PassKind kind = PassKind::quadrature;
  int points = 0;
  FittedEffects effects;
};

struct MacroState {
  explicit MacroState(const Analysis& given) : analysis(given) { reader.observer = &given.observer; }

  const Analysis& analysis;
  int macro = 0;            // macro iteration, from 1: the number of the pass at hand
  bool creeps = false;      // passes search for their maximum
  int left = 0;             // passes of the unit-specific phase that are allowed, this one included
  Estimates previous;       // at the end of the last working-data step
  double lastchange = 0.0;  // the largest change of an estimate from pass to pass, in standard errors; 0: none yet
  double mean = 0.0;        // of the outcome, or its sum over that of the trials or exposure

  WorkingFile working;  // the working data file
  RecordLayout layout;  // of its records
  UnitReader reader;    // of the working-data steps
  Separation separation;
  std::vector<double> categories;  // values of the categories, ascending
  int saturated = 0;               // records or responses of the working data at hand that have next to no say
  double largestrate = -1.0;       // of all records, once a step that is capped has met them
  int limited = 0;                 // records of the working data at hand whose weight is held at the limit
  Array<double> counts;            // trials or exposure of each record; empty when the model has none
  Array<double> factors;           // sqrt(w)/sqrt(v) of each record; empty without design weights and known variance
  Array<double> workinggamma;      // of categories: the fixed effects behind the working data at hand
  // The linear predictor of each record in the working data at hand, once these have strayed too often: from there on
  // it moves by short steps. Empty before.
  Array<double> damped;
  // The working data stand short of the estimates of the pass before: by such steps, or since the thresholds would come
  // out of order.
  bool shortened = false;
  IterationState iterations;
  MacroEnd end = MacroEnd::goeson;  // of the unit-specific phase

  // The results so far.
  std::optional<DesignMoments> moments;  // of the identity pass, where shares of variance are asked for
  PassResults unitspecific;              // of the last pass of the unit-specific phase
  std::optional<PassResults> laplace6, quadrature, average;
  // The last engine that has results, of those that don't repeat earlier versions (AGQNODES:FIXED), and its random
  // effects where they are wanted.
  std::optional<PassKind> engine;
  std::optional<EnginePosteriors> posteriors;
  [[nodiscard]] const PassResults* engineresults() const {
    return !engine ? nullptr : *engine == PassKind::quadrature ? &*quadrature : &*laplace6;
  }
  // The fixed effects that each phase went on with; empty for one that has none.
  Array<double> unitspecificgamma, laplacegamma, quadraturegamma;
};

// A chain of passes under way or at its end. It has to stay where it is as long as the analysis.
struct ChainFit {
  explicit ChainFit(const Analysis& analysis) : state(analysis) {}
  MacroState state;
  Pass pass;  // the last one
};

// What the observer is told of a pass.
struct ChainPass {
  MacroState& state;
  Pass& pass;
  const PassResults& results;
};

struct MacroEvent {
  MacroEnd end;
  int macro;
  const PassResults& results;
  const Separation& separation;
  const Failure* failure = nullptr;  // of the last two, which have no results
};

}  // namespace kdr
