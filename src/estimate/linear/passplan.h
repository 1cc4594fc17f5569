// What a pass of the estimation is told. Phases read the plan, nothing else decides what they do.
#pragma once

#include "core/results.h"

namespace kdr {

struct PassPlan {
  PassKind kind = PassKind::linear;
  int macro = 0;                     // macro iteration, from 1; 0 in a linear run
  const Estimates* start = nullptr;  // estimates to start from; null: those of the analysis, or moments
  bool freshgamma = false;           // but for gammahat, which the data of the pass give by least squares
  double fixsigma2 = 0.0;            // what sigma^2 is held at; 0.0: estimated. An identity pass finds its own value
  int hetit = 0;         // iterations of a stage with a taupi for every level-3 unit before the ordinary one
  int limit = 0;         // iterations of the ordinary stage
  double stopval = 0.0;  // its convergence criterion, a percentage of the log-likelihood
  int farlimit = 0;      // the limit that takes its place when the user goes on; 0: the limit is final

  // tau(pi) and tau(beta) stand still, and with them the accelerated steps.
  [[nodiscard]] bool tausstand() const { return kind == PassKind::populationaverage; }
};

}  // namespace kdr
