// What the report and the variance files show of a sixth-order Laplace estimation.
#pragma once

#include "nonlinear/laplace.h"
#include "report/degreesoffreedom.h"
#include "report/passresults.h"

namespace kdr {

inline constexpr const char* laplacetaufile = "tauvcl6.dat";
inline constexpr const char* laplacegammafile = "gamvcl6.dat";

// Goes back to the mark of the report and writes the results of an `estimated` end: heading, each tau with its standard
// errors, correlations and reliabilities, the fixed effects with their ratios and hypothesis tests, and the likelihood,
// unless a final call came last. Deviance and number of parameters are modelstatistics'. Nothing at `noiterations`.
void laplacetables(const LaplaceResult& result, const FixedDegrees& degrees);

// Goes back to the mark and writes the words of a `failed` end.
void laplacefailed();

// Writes the two variance files: the taus and the covariance of their elements; the fixed effects and their covariance.
// At `noiterations` the covariances are those of the pass that came before.
void writelaplacefiles(const LaplaceResult& result, const PassResults& before);

}  // namespace kdr
