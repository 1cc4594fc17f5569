// What a model and its controls imply for one another, whoever made them: a command file, the dialogue, a client of the
// library.
#pragma once

#include "core/control.h"
#include "core/model.h"

namespace kdr {

// What holds sigma^2 at 1 whatever the model asks for, in words that follow "with"; null if nothing does.
[[nodiscard]] const char* variancekeeper(const Model& model, const Control& control);

// Whether the trials or the exposure stand in an equation as well.
[[nodiscard]] bool countsinequations(const Model& model);

// Brings the controls to values that go together: accelerated steps of a heterogeneous stage, the criterion of the
// passes under quasi-likelihood unless it was asked for (`stopgiven`), a population average where there is one, usual
// steps under the restricted likelihood, which has its own.
void settlecontrol(const Model& model, bool stopgiven, Control& control);

}  // namespace kdr
