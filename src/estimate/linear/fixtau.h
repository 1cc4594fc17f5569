// The tau matrices between their updates: fixed and equal elements, and the repair of an unusable starting value.
#pragma once

#include "core/control.h"
#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

// Every element of the n by n matrix t with an entry of `est` that is not missingcode takes that value.
void applyfixed(double* t, int n, const Array<double>& est);
// The elements of each equality group of the packed codes take the group's mean.
void applyequal(int n, double* t, const Array<int>& codes);

// What a run asks of its tau matrices: ESTTAU2:, CONTAU2: and DIAGONALIZETAUPI:, and their level-3 twins.
void applytaupi(double* taupi);
void applytaubeta(double* taubeta);

// Repairs t (n by n), derived from the squared residuals `moments`, by the action `code` (fixtau2 or fixtau3): 1 clears
// the off-diagonals, 3 is the automatic fix-up, 4 stops the run, others ask at the console. Returns with a usable t, or
// stops with code 100. The dialogue may change run.est.gammahat and sigma2.
void fixtau(double* t, int n, const Array<double>& moments, TauRepair code, double& sigma2, Tau which);

}  // namespace kdr
