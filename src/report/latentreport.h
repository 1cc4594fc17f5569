// The report of a latent variable regression.
#pragma once

#include <vector>

#include "kernel/array.h"

namespace kdr {

// The results of a regression of random level-2 coefficients on others and on level-3 variables: nO outcomes, nP
// predictors, nW terms.
struct LatentRegression {
  std::vector<int> outcomes, predictors;  // places among the random level-2 coefficients
  std::vector<int> terms;                 // level-3 variables in table order
  bool computable = false;                // T_PP could be inverted; the rest is empty otherwise
  Array<double> b;                        // nO by nP
  Array<double> GO, Gadj;                 // nO by nW
  Array<double> R;                        // nO squared
  Array<double> Vb;                       // (nO nP) squared, covariance of the rows of b; these three are missingcode
  Array<double> Vadj, Vdiff;              // throughout when the covariance of the taus isn't known. (nO nW) squared, of
                                          // the rows of G_adj and of G_O - G_adj
  int df = 0;                             // level-3 units - nW - nP
};

// Writes a regression of the run's coefficients.
void latentreport(const LatentRegression& regression);

}  // namespace kdr
