// The fixed effects of a phase and what hangs on them.
#pragma once

#include "core/results.h"
#include "document/subject.h"

namespace kdr {

// The members `fixed_effects` and `hypothesis_tests`. The estimates are tested by the covariance of the model and by
// the robust one; `withratio`: exp(gamma) is an odds or event-rate ratio of the outcome, if that has one.
void addeffects(Json& phase, const Subject& subject, const Array<double>& gamma, const EffectTable& model,
                const EffectTable& robust, bool withratio);

}  // namespace kdr
