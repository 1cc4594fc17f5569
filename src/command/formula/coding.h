// How a formula made the columns of a model, as a member of the results document: all that tells the columns of other
// records.
#pragma once

#include "command/formula/equationlines.h"
#include "document/json.h"
#include "formula/plan.h"

namespace kdr {

// The member `coding` of a plan whose design stands under the names of `lines`.
[[nodiscard]] Json codingof(const FormulaPlan& plan, const EquationLines& lines);

}  // namespace kdr
