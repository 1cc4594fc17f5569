// The tau matrices between their updates: fixed and equal elements, and the repair of an unusable starting value.
#pragma once

#include "core/failure.h"
#include "core/model.h"
#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// Every element of the n by n matrix t with an entry of `est` that is not absent takes that value.
void applyfixed(double* t, int n, const Array<double>& est);
// The elements of each equality group of the packed codes take the group's mean.
void applyequal(int n, double* t, const Array<int>& codes);

// What a model asks of a tau: ESTTAU2:, CONTAU2: and DIAGONALIZETAUPI:, and their level-3 twins.
void applyheld(const Model& model, Tau which, Estimates& est);

// What holds element (i, j) of a tau of order n: `est` and `codes` are null where nothing does.
[[nodiscard]] bool fixedelement(const Array<double>* est, int n, int i, int j);
[[nodiscard]] bool equalelement(const Array<int>* codes, int i, int j);
[[nodiscard]] bool freeelement(const Array<double>* est, const Array<int>* codes, int n, int i, int j);

// Repairs a tau of the pass, derived from the squared residuals `moments`, by the action `code`; what is no standing
// action asks the observer, who may change gammahat and sigma2 as well. Fails where no repair helps.
[[nodiscard]] Failure fixtau(Pass& pass, Tau which, const Array<double>& moments, FixTau code);

}  // namespace kdr
