// Linear constraints among the fixed effects: gammas that share a group number have one value.
#pragma once

namespace kdr {

// Stops with code 100 when run.model.constraints holds a negative number, or when its groups are not numbered from 1
// upward without gaps in the order of their first members.
void checkconstraints();

// Builds run.model.constrainmatrix, which makes the full gammas from the reduced ones: full ngamma squared, row i for
// full gamma i, the reduced gammas in the first ngamma - nconstrained columns. Every member of a group but its first is
// marked in run.model.removed and counted in nconstrained. Raises checkconstraints' stop.
void makeconstraints();

// Keeps a copy of run.model.contrasts as uncutcontrasts and states contrasts in the reduced gammas: the column of a
// removed gamma is added to that of the first member of its group, and a row then has ngamma - nconstrained values.
// Expects run.model.coef.ngamma as it was before the reduction, and leaves it so.
void applyconstraints();

}  // namespace kdr
