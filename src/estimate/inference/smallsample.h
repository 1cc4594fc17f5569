// Covariances and degrees of freedom of fixed effects that allow for the variance components being estimated:
// Satterthwaite's degrees of freedom for a contrast (Giesbrecht and Burns, 1985), several contrasts by Fai and
// Cornelius (1996), and the adjusted covariance and scaled F of Kenward and Roger (1997). Derived in docs/numerics.md,
// "Degrees of freedom of few units".
#pragma once

#include "kernel/array.h"

namespace kdr {

// What they are made of, for g fixed effects and NT variance components.
struct VarianceUncertainty {
  int g = 0, NT = 0;
  Array<double> Phi;       // g squared: covariance of the fixed effects at the variance components
  UnitTable<double> P, Q;  // for each component, and for each pair (i, j), j <= i, packed: M'V^-1 V_i V^-1 M and
                           // M'V^-1 V_i V^-1 V_j V^-1 M, g squared
  Array<double> W;         // NT squared: covariance of the variance components; 0 in the rows of those not estimated
};

// Phi + 2 Phi {sum_ij W_ij (Q_ij - P_i Phi P_j)} Phi, g squared: the adjusted covariance.
[[nodiscard]] Array<double> adjustedcovariance(const VarianceUncertainty& known);

// Degrees of freedom of the contrast l'gamma (g values): 2 v^2 / (d'W d), v = l'Phi l, d_i = l'Phi P_i Phi l. Infinite
// where the variance components leave nothing uncertain.
[[nodiscard]] double satterthwaite(const VarianceUncertainty& known, const double* l);

// The F test of several contrasts: factor e' C^-1 e / q, of e = L gamma with covariance C, is F with q and df degrees
// of freedom. `known` is false where the approximation has none.
struct ScaledTest {
  bool known = false;
  double factor = 1.0, df = 0.0;
};
// L: q rows of g values, independent under Phi. C = L Phi L', on whose eigenvectors df rests: unlike factor and
// statistic it changes when one row is multiplied by a number.
[[nodiscard]] ScaledTest faicornelius(const VarianceUncertainty& known, const double* L, int q);
// C = L adjustedcovariance L'.
[[nodiscard]] ScaledTest kenwardroger(const VarianceUncertainty& known, const double* L, int q);

}  // namespace kdr
