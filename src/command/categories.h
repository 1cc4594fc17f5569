// The equation tables of runs with several sets of equations or with thresholds.
#pragma once

namespace kdr {

// Makes the tables of run.model anew for the kind of run in run.model (nonlin, ordinal, ncat): ncat - 1 equation sets
// for a multinomial run, one set and the ncat - 2 variables THOLD2, THOLD3, ... behind the last level-1 variable for an
// ordinal one, one plain set otherwise. Sets neqsets, ncol1, maxbeta and names1. The deletion and residual-file lists
// are kept. Stops with code 100 when ncat is below 2 or asks for tables beyond reason, or when a variable's name begins
// with THOLD in an ordinal run.
void makeequationsets();

}  // namespace kdr
