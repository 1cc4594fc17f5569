// One EM step of the three-level model.
#pragma once

#include "core/failure.h"
#include "estimate/linear/point.h"

namespace kdr {

// The EM update of sigma2 waits until the convergence test is over.
struct EmSums {
  double traceacc = 0.0;
  double rss = 0.0;
};

// Updates gammahat, vgamma, taupi, taubeta (the per-unit `hettaupi` in the heterogeneous stage, null otherwise) and the
// log-likelihood, which belongs to the parameters that the step began with. Failures 11, 12 and 15 for what cannot be
// inverted.
[[nodiscard]] Failure emstep(Pass& pass, Likelihood& likelihood, EmSums& sums, UnitTable<double>* hettaupi);

}  // namespace kdr
