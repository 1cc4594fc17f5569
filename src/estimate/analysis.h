// What one fit is given. It stays the same while the fit runs; what the fit makes lives in its passes.
#pragma once

#include <cstddef>
#include <vector>

#include "core/control.h"
#include "core/estimates.h"
#include "core/model.h"
#include "core/observer.h"
#include "data/mdmdata.h"

namespace kdr {

// What later readers want of a fit, beyond its results.
struct Wanted {
  bool unitrows = false;        // identifiers and level-2 rows of the level-2 units
  bool records = false;         // the level-1 records as the analysis had them
  bool fitted = false;          // with them Z of working data, or the fitted probabilities of categories
  std::vector<int> variables1;  // level-1 variables that these records keep beside those of the model
  bool posteriors = false;      // of the random effects by the engines
  bool leastsquares = false;    // the results of ordinary least squares
  bool curves = false;          // points of the profiles of the likelihood, beside the ends of their intervals
};

// Where the store of the level-2 units may lie.
struct StoreSettings {
  bool inmemory = false;                        // all of it in memory, whatever its size
  std::size_t budget = std::size_t{256} << 20;  // bytes that may stay in memory otherwise
  std::size_t window = std::size_t{16} << 20;   // bytes of one window of a stream that lies in a file
};

struct Analysis {
  const Model& model;
  const MdmData& mdm;
  const DesignWeights& weights;
  const Control& control;
  const Observer& observer;
  Wanted wanted;
  StoreSettings store;
  int threads = 1;                   // of the maximum-likelihood engines
  const Estimates* start = nullptr;  // starting values from outside; null: the fit finds its own
};

}  // namespace kdr
