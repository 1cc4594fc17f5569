// A way to a maximum at the edge of the parameter space, where a tau is singular. EM steps get shorter the nearer they
// come and may stand far below it after thousands of iterations; scoring steps leave the space. It finds a maximum
// inside as well.
#pragma once

#include "estimate/linear/pass.h"

namespace kdr {

// The iterations that begin with a search: this one, and each that doubles it.
inline constexpr int firstedgesearch = 200;
// The same in a pass of a macro loop that creeps, where the maximum may lie anywhere.
inline constexpr int firstsearch = 5;
// A stage that converges sooner than this does not creep, and its stop is no place for a search.
inline constexpr int soonestedgesearch = 10;
// What a search has to gain: more than rounding, and where the criterion of convergence is met already, what would
// change a deviance by 0.01.
inline constexpr double leastgainwhenslow = 1.0e-6, leastgainatstop = 0.005;

// True when the maximum may lie at the edge: a scoring step from the estimates at hand leaves the parameter space, or
// there is none. Leaves C_j^-1 of the store anywhere.
[[nodiscard]] bool nearedge(Pass& pass);

struct EdgeSearch {
  bool failed = false;  // it found no maximum, so that nobody knows how far the estimates at hand are from one
  double gain = 0.0;    // of the log-likelihood; 0.0: nothing higher was found
  Estimates est;        // where there is a gain
};

// Climbs from `start` to a maximum of the log-likelihood, wherever it lies, by steps that keep the rank of a singular
// tau (estimate/ascent/conescoring.h); restrictions of the taus hold throughout. It counts if the log-likelihood is
// higher by more than `least` than that of the estimates at hand. Of a maximum at the edge a point beside it is handed
// out, whose taus have inverses, for all that follows needs them: below it by 1e-5 for each rank that a tau lacks
// there. An interrupt ends the search where it stands. The estimates at hand stay; C_j^-1 of the store is left
// anywhere. Derived in docs/numerics.md, "The search along the edge".
[[nodiscard]] EdgeSearch searchedge(Pass& pass, const Estimates& start, double least);

}  // namespace kdr
