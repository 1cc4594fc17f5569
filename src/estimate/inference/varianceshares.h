// Where the variance of the outcome lies: shares and correlations of the levels, R squared, design effect. Derived in
// docs/numerics.md, "Shares of variance".
#pragma once

#include <optional>

#include "core/control.h"
#include "core/estimates.h"
#include "core/outcome.h"
#include "core/results.h"
#include "kernel/array.h"

namespace kdr {

// What is needed of the records, without their weights: sums of M'M, of the columns of M, of Z1'Z1 and Z2'Z2, and of
// the squared numbers of records in the units.
struct DesignMoments {
  double records = 0.0;
  Array<double> MM, M1;      // g squared, [g]
  Array<double> Z1Z1, Z2Z2;  // p and b squared
  double squares2 = 0.0, squares3 = 0.0;
  double count = 1.0;  // mean of trials or exposure
};

// The random effects at the values that are asked for: of level 2 the variables, of level 3 products of two.
struct ShareValues {
  Array<double> z1, z2;  // [p], [b]
};

struct ShareRequest {
  const Outcome& outcome;
  const DesignMoments& moments;
  std::optional<ShareValues> at;          // none: the means over the records
  std::optional<Shares::NullModel> null;  // of linear models whose first random effects are the intercepts'
};

// Of the estimates; sigma2 counts for linear models alone.
[[nodiscard]] VarianceShares variancesharesof(const Estimates& est, const ShareRequest& request);

}  // namespace kdr
