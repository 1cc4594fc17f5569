// The maximum-likelihood engines at the close of the unit-specific phase, each on a copy of the estimates.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "core/failure.h"
#include "estimate/likelihood/engine.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Why a model cannot go on to the engine that the control asks for; empty: it can, or there is none. The engines know
// no elements of a tau that are held or equal, but for a diagonal one in quadrature, and Laplace-6 no design weights:
// the model that they fit would be another one.
[[nodiscard]] std::string engineobstacle(const Model& model, const Control& control);

// The last engine that the control asks for, if its results take the place of those of quasi-likelihood: those of
// AGQNODES:FIXED don't.
[[nodiscard]] std::optional<PassKind> lastengine(const Control& control);

// What the observer is told of an engine that has ended.
struct EngineStage {
  Engine engine;
  const EngineResult& fit;
  const PassResults& results;       // those that `fit` has; of no use when it has failed
  bool finalcall = false;           // of Laplace-6
  bool takenover = false;           // the fit goes on with the engine's estimates
  std::vector<std::string> behind;  // warnings that stand behind the tables
  bool separated = false;           // some fixed effects have no finite estimate, as the warnings of the results tell
};

// Laplace-6 and then adaptive quadrature, as far as the analysis asks for them, from the estimates and the random
// effects in `pass`; `before` are the results of the last pass. Where quasi-likelihood has failed (state.end) they
// begin from a regression without random effects, and nothing of the estimates in `pass` is used. An engine that
// succeeds leaves its estimates in `pass`, its results and its fixed effects in `state`; one that doesn't leaves the
// pass as it is.
[[nodiscard]] Failure maximumlikelihood(Pass& pass, MacroState& state, const PassResults& before);

}  // namespace kdr
