// The log-density of an outcome and its derivatives by the linear predictor, many records at one predictor each.
#pragma once

#include <cstddef>

#include "estimate/quadrature/quadratureloops.h"
#include "kernel/array.h"

namespace kdr {

// Sizes of arrays are rounded up to a multiple of nodestep.
struct RecordDensities {
  Array<double> eta;      // in: x~'(coefficients); the logarithm of an exposure is added by the call
  Array<double> r, W, D;  // out: dl/deta, -d2l/deta2, dW/deta
  Array<double> work;
  void fit(std::size_t records);
};

// The sum of the log-densities of `count` records from place `first` on, without the terms of the outcome alone; r, W
// and D at the same places. y and n are those of the records: trials, logarithms of the exposures, or null.
double recorddensities(RecordDensity outcome, std::size_t first, std::size_t count, const double* y, const double* n,
                       RecordDensities& densities);

}  // namespace kdr
