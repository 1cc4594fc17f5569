// What a pass of the estimation is told. Phases read the plan, nothing else decides what they do.
#pragma once

#include "core/results.h"

namespace kdr {

// Whether a pass also climbs to its maximum by the search along the edge (edgesearch.h).
enum class Searching {
  never,
  atedge,  // in long runs, and where the iterations would stop beside the edge
  always   // from early on, and before any stop
};

struct PassPlan {
  PassKind kind = PassKind::linear;  // what events and results are called by, and
  int macro = 0;                     // the macro iteration, from 1; 0 in a linear run. Nothing else hangs on these two
  const Estimates* start = nullptr;  // estimates to start from; null: those of the analysis, or moments
  bool freshgamma = false;           // but for gammahat, which the data of the pass give by least squares
  double fixsigma2 = 0.0;            // what sigma^2 is held at; 0.0: estimated. An identity pass finds its own value
  bool tausstand = false;            // tau(pi) and tau(beta) are held where they start
  bool restricted = false;           // to the maximum of the restricted likelihood
  bool leastsquares = false;         // the observer gets the results of least squares
  bool robust = true;                // results have robust standard errors
  bool shares = false;               // and shares of variance, if they are asked for
  Searching searching = Searching::never;
  int hetit = 0;         // iterations of a stage with a taupi for every level-3 unit before the ordinary one
  int limit = 0;         // iterations of the ordinary stage
  double stopval = 0.0;  // its convergence criterion, a percentage of the log-likelihood
  int farlimit = 0;      // the limit that takes its place when the user goes on; 0: the limit is final
};

}  // namespace kdr
