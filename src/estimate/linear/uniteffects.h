// What a finished pass knows of the random effects of some units, for predictions: given the data, the means of v of
// their level-3 unit k and of u of their level-2 unit j, the joint covariance, and how the means go with the fixed
// effects. With C = sigma2 C_j^-1, A = C_j^-1 Z1'Z2, E the first b rows of the level-2 coefficients:
//   cov v = sigma2 D_k^-1 = P,  cov u = C + A P A',  cov(u, v) = -A P
//   dv/dgamma = -D_k^-1 H W3,   H = Z2'B - sum_j Z2'Z1 C_j^-1 Z1'B
//   du/dgamma = -C_j^-1 Z1'B (W3 + E dv/dgamma)
// In a weighted run u and v are those of the scaled Z1 and Z2; what is handed out is scaled back to the records.
#pragma once

#include <vector>

#include "estimate/inference/predictions.h"
#include "estimate/linear/pass.h"

namespace kdr {

// A level-3 unit and a level-2 unit in it, in the order of the data; level2 below 0: one that is not in the data.
struct UnitPair {
  int level3 = 0;
  long long level2 = -1;
};

// One for each pair. A unit that is not in the data has mean 0 and the covariance that the model gives. What the store
// lacks at the end is told by its failure.
[[nodiscard]] std::vector<KnownEffects> uniteffects(Pass& pass, const std::vector<UnitPair>& pairs);

}  // namespace kdr
