// Bias-reduced robust covariance of the fixed effects (CR2), with level-3 units as clusters, and its degrees of
// freedom: Bell and McCaffrey (2002), Pustejovsky and Tipton (2018). The working model is the fitted one, whitened.
// Derived in docs/numerics.md, "Few clusters, robust".
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "estimate/inference/smallsample.h"
#include "estimate/linear/marginalvalue.h"

namespace kdr {

// What the level-3 units leave. With I_k = M_k'V_k^-1 M_k and s_k = M_k'V_k^-1 r_k, both g:
struct ClusterRobust {
  int g = 0;
  Array<double> Phi;                 // g squared: (sum I_k)^-1
  Array<double> covariance;          // g squared
  UnitTable<double> I;               // per level-3 unit, g squared
  UnitTable<double> T;               // likewise: the adjustment of the scores is s_k + I_k T_k s_k
  std::vector<Array<double>> whole;  // directions (g) in which one unit has all there is: nothing is known of
                                     // contrasts that have a part in one of them
};
[[nodiscard]] ClusterRobust clusterrobust(Pass& pass, MarginalSums& sums, const Estimates& est,
                                          const MarginalValue& value);

// Whether the contrast l'gamma rests on one level-3 unit alone in some part.
[[nodiscard]] bool restsonone(const ClusterRobust& known, const double* l);
// Degrees of freedom of l'gamma, and of q rows L: the F test of e'C^-1 e with C = L covariance L' (Hotelling's T
// squared with a matched Wishart).
[[nodiscard]] double clusterdegrees(const ClusterRobust& known, const double* l);
[[nodiscard]] ScaledTest clustertest(const ClusterRobust& known, const double* L, int q);

}  // namespace kdr
