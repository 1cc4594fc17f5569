// Rubin's rules (Rubin, 1987, Multiple Imputation for Nonresponse in Surveys): the averages of a series of sub-runs.
//
// With M sub-runs, a bar for the plain mean over them and f = (1 + 1/M) / (M - 1), the covariance of a pooled vector of
// estimates x is the mean of the sub-runs' covariances, within, plus f times the sum of (x_m - xbar)(x_m - xbar)',
// between. With a single sub-run there is nothing between: its results stand as they are.
#pragma once

#include <span>

#include "report/pooledresults.h"
#include "series/subrun.h"

namespace kdr {

// Pools one or more records of the shape. dfgamma has the g complete-data degrees of freedom, which bound those of the
// pooled effects:
//   nu = (M - 1) (within_ii / between_ii + 1)^2,  df_i = min(trunc(nu), dfgamma_i), dfgamma_i where nu has no value.
// Failure 3.
[[nodiscard]] Pooled pool(const SubrunShape& shape, std::span<const SubrunRecord> records,
                          std::span<const int> dfgamma);

}  // namespace kdr
