// Aitken extrapolation of the variance components from their last three values (docs/numerics.md, "The Aitken step").
#pragma once

#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// taupi and taubeta as they stood one and two iterations back.
struct TauHistory {
  Array<double> T1, T2;  // p squared
  Array<double> L1, L2;  // b squared
};

// Extrapolates pass.est.taupi and taubeta in place. `ratio` goes in as the ratio of successive changes of sigma2, 0.0
// when sigma2 is fixed, and comes back as lambda, the mean ratio over all elements that take part. Returns false, with
// nothing changed, unless 0.01 < lambda <= 0.985.
[[nodiscard]] bool aitkenstep(Pass& pass, double& ratio, const TauHistory& history);

}  // namespace kdr
