// What was run: the first block of every report.
#pragma once

namespace kdr {

// Checks, before anything is written, that the first equation set fits the summary: at most 500 level-1 coefficients,
// 500 level-2 coefficients and 1500 fixed effects, where a level-2 coefficient without fixed effects counts as one.
// Else "Model is too big for the program!" and the stop with code 100.
void buildsummary();

// Writes the block of facts, the weighting table, the table of the fixed effects (text mode) and the equations. Needs
// the symbols and the row labels; fills pisubs, betasubs1 and betasubs2 of run.model.coef.
void writespecification();

}  // namespace kdr
