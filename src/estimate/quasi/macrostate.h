// What a non-linear run carries from pass to pass.
#pragma once

#include "estimate/linear/iteration.h"
#include "estimate/linear/recordunits.h"

namespace kdr {

struct MacroState {
  explicit MacroState(const Analysis& given) : analysis(given) {}

  const Analysis& analysis;
  int macro = 0;       // macro iteration, from 1: the number of the pass at hand
  int left = 0;        // passes of the unit-specific phase that are allowed, this one included
  Estimates previous;  // at the end of the last working-data step
  double mean = 0.0;   // of the outcome, or its sum over that of the trials or exposure

  WorkingFile working;        // the working data file
  RecordLayout layout;        // of its records
  UnitReader reader;          // of the working-data steps
  int limited = 0;            // records of the working data at hand whose weight is held at the limit
  Array<double> counts;       // trials or exposure of each record; empty when the model has none
  Array<double> factors;      // sqrt(w)/sqrt(v) of each record; empty without design weights and known variance
  IterationState iterations;  // the failures of accelerated steps count for the whole run

  // The fixed effects of each phase, for the graph data file; missingcode at the head of one that was not computed.
  Array<double> unitspecificgamma, laplacegamma, quadraturegamma;
};

}  // namespace kdr
