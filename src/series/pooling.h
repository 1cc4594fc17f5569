// Rubin's rules: the averages of a series of sub-runs (docs/numerics.md, "Pooling").
//
// With M sub-runs, a bar for the plain mean over them and f = (1 + 1/M) / (M - 1), the covariance of a pooled vector of
// estimates x is the mean of the sub-runs' covariances, within, plus f times the sum of (x_m - xbar)(x_m - xbar)',
// between. With a single sub-run there is nothing between: its results stand as they are.
#pragma once

#include <span>

#include "core/model.h"
#include "core/modelwalk.h"
#include "core/results.h"
#include "series/pooledresults.h"
#include "series/subrun.h"

namespace kdr {

// What the averages take from the model beside its shape.
struct PoolFrame {
  FixedDegrees degrees;     // complete-data degrees of freedom, by counts
  Array<int> nterms2;       // [q], level-2 terms random at level 3, and
  Array<int> nfixedterms2;  // [q], fixed there, of each coefficient random at level 2
  Array<int> nterms3;       // [r], level-3 terms of each coefficient random at level 3
};
[[nodiscard]] PoolFrame poolframe(const ModelRows& rows, const SubrunShape& shape, FixedDegrees degrees);

// Pools one or more records of the shape, with the tests of the model's hypotheses. The complete-data degrees of
// freedom bound those of the pooled effects, with r = between_ii / within_ii:
//   nu = (M - 1) (1 + 1/r)^2,  df_i = min(trunc(nu), df_i), df_i where nu has no value;
// with those of the records, if they are no counts, by their mean in the place of the model's;
//   fraction of missing information (r + 2 / (nu + 3)) / (r + 1), relative efficiency 1 / (1 + fraction / M).
// Failure 3.
[[nodiscard]] Pooled pool(const SubrunShape& shape, std::span<const SubrunRecord> records, const PoolFrame& frame,
                          const Model& model);

}  // namespace kdr
