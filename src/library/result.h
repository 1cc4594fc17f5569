// What stands behind the handle of a result.
#pragma once

#include <string>
#include <vector>

#include "core/results.h"
#include "estimate/bootstrap/bootstrap.h"
#include "estimate/linear/unitresults.h"
#include "kernel/array.h"
#include "library/handles.h"

struct kdr3_result {
  kdr::PassResults results;  // of the phase that the run ends with: an engine where there is one
  bool converged = true;     // all of the run
  kdr::UnitCounts counts;
  int p = 0, b = 0;
  std::size_t g = 0;
  std::vector<std::string> names, warnings;
  kdr::Posteriors posteriors;
  kdr::Array<double> weights1, weights2, weights3;  // as kdr3_result_weights hands them out; empty without
  kdr::Replicates replicates;
  int replicatestried = 0;
  std::string json, table;  // the results document
};
