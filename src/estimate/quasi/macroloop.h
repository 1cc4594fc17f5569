// A Bernoulli, binomial or Poisson run: penalised quasi-likelihood as a chain of passes of the linear engine.
//
//   1  identity pass        a linear model of the raw outcome, or rate, over the blocks of the MDM file
//   2  unit-specific phase  working data from the estimates, a pass over them, and again, until the estimates stand
//   still 3  its close            residual files, the maximum-likelihood engines 4  population average   one pass over
//   working data without random effects, the taus held
//
// Source: Breslow and Clayton (1993), JASA 88, 9-25; Zeger, Liang and Albert (1988), Biometrics 44, 1049-1060.
#pragma once

#include "estimate/analysis.h"
#include "report/passresults.h"

namespace kdr {

// Runs the chain for the model of the run record. `store` gets the results of every pass of phases 2 and 4, for a
// series of runs. Returns the results of the last unit-specific pass. The variance files are listed by
// listnonlinearfiles.
[[nodiscard]] PassResults estimatenonlinear(const Analysis& analysis, void (*store)(const PassResults&));

// The closing list of the variance files in the report.
void listnonlinearfiles();

}  // namespace kdr
