// Separation: a direction d of the fixed effects along which no outcome becomes less likely and some become more so.
// The likelihood, integrated or not, has no maximum then: effects run away without end (Albert and Anderson, 1984,
// Biometrika 71, 1-10). With the row h of a response of a record, its outcome asks for
//   successes in all trials, a value at or below a cut   h'd >= 0
//   no success, no count, a value above a cut            h'd <= 0
//   anything between                                     h'd  = 0
// and a multinomial record of category k for (h_k - h_c)'d >= 0 for all c.
#pragma once

#include "core/failure.h"
#include "estimate/quasi/macrostate.h"

namespace kdr {

// Looks for fixed effects whose predictor alone does that, and puts them into state.separation; checks the values of
// the outcome on its way, and fails for one that the outcome type cannot have. To be called before the first pass.
[[nodiscard]] Failure checkoutcomes(MacroState& state);

// Looks for any such d, once in a fit, and puts it into state.separation. It regresses what the records ask for on
// their rows, a plain logistic regression by Newton steps, until its d agrees with all records, or comes to rest, or
// runs away: then the part of d that the records which are still undecided do not see is tried.
[[nodiscard]] Failure findseparation(MacroState& state);

}  // namespace kdr
