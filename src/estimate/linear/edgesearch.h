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

// A point with a higher log-likelihood, and what it gains; 0.0 when there is none.
struct HigherPoint {
  double gain = 0.0;
  Estimates est;
};

// From the estimates at hand, scoring steps on log-likelihood + m (log det taupi + log det taubeta), whose maximum lies
// inside, for m that goes to 0: at the end the log-likelihood is below its maximum by at most m times the order of the
// taus. Each step is halved until that function has risen, with the fixed effects that are best at the variance
// components. Restrictions of the taus hold throughout. The point that it ends with counts if its log-likelihood is
// higher by more than `least`. An interrupt ends the search. The estimates at hand stay; C_j^-1 of the store is left
// anywhere.
// Derived in docs/numerics.md, "The search along the edge".
[[nodiscard]] HigherPoint searchedge(Pass& pass, double least);

}  // namespace kdr
