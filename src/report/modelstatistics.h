// Deviance of the model and its comparison with an alternative one.
#pragma once

namespace kdr {

// Writes deviance and number of parameters for the log-likelihood, and the likelihood-ratio test when the run was told
// the deviance of an alternative model. `phase` 1: every level-3 unit has a taupi of its own.
void modelstatistics(double loglik, int phase);

}  // namespace kdr
