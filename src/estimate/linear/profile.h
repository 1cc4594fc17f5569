// Profile likelihood intervals of a linear model: a fixed effect, a variance, a standard deviation, a correlation or an
// intraclass correlation stands still, everything else is where the likelihood is largest beside it, and the bounds are
// where twice the log-likelihood has fallen by the 0.95 quantile of chi-square with one degree of freedom.
// Derived in docs/numerics.md, "Profile intervals".
#pragma once

#include <string>
#include <vector>

#include "core/results.h"
#include "estimate/linear/marginalvalue.h"

namespace kdr {

// A random intercept at each level and no other random effect.
[[nodiscard]] bool interceptsalone(const Pass& pass);

struct ProfileRequest {
  MarginalSums& sums;
  Criterion criterion = Criterion::full;
  const Estimates& from;  // at the maximum, or beside it
};

// The profile of the pass' model. Under the restricted likelihood, which is none of the fixed effects, these have no
// intervals. The observer may stop it: what is missing then is told, as is what could not be found, in `notes`.
[[nodiscard]] ProfileIntervals profileintervals(Pass& pass, const ProfileRequest& request,
                                                std::vector<std::string>& notes);

}  // namespace kdr
