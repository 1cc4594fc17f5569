// Linear constraints among the fixed effects: gammas that share a group number have one value.
#pragma once

#include <vector>

#include "core/model.h"

namespace kdr {

// Whether the groups of model.constraints are numbered from 1 upward without gaps in the order of their first members.
[[nodiscard]] bool groupsinorder(const Model& model);

// Builds model.constrainmatrix, which makes the full gammas from the reduced ones: full ngamma squared, row i for full
// gamma i, the reduced gammas in the first ngamma - nconstrained columns. Every member of a group but its first is
// marked in model.removed and counted in nconstrained. The groups are in order.
void makeconstraints(Model& model);

// The groups of one member, which constrain nothing.
[[nodiscard]] std::vector<int> lonelygroups(const Model& model);

// Keeps a copy of model.contrasts as uncutcontrasts and states contrasts in the reduced gammas: the column of a removed
// gamma is added to that of the first member of its group, and a row then has ngamma - nconstrained values. Expects
// model.coef.ngamma as it was before the reduction, and leaves it so.
void applyconstraints(Model& model);

}  // namespace kdr
