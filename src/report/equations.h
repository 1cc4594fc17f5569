// The model as equations of its levels and as one mixed equation.
#pragma once

#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

// Writes the level-1, level-2 and level-3 equations, the centering sentences, the constraints and the level-1 variance.
// Fills pisubs, betasubs1 and betasubs2 of run.model.coef. Needs the symbols and the row labels.
void writeequations();

// Fills pisubs, betasubs1 and betasubs2 alone.
void setrandomsubscripts();

// Writes the mixed equation, a report on one equation set only: nothing in a multinomial or ordinal run.
void writemixedmodel();

// Writes which of the variables 1..n of a level are centered around their group mean (mark 1) or grand mean (mark 2).
void centernotes(int n, const Array<int>& marks, const Array<Name>& names);

}  // namespace kdr
