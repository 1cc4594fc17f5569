// The correction that turns the linear predictor at the fixed part alone into that of the mean over the random effects.
#pragma once

#include "core/outcome.h"
#include "estimate/quasi/family.h"
#include "kernel/array.h"

namespace kdr {

// The covariances of the random effects.
struct MarginalCorrection {
  Link link = Link::logit;
  int q = 0, r = 0;                 // orders of taupi and taubeta
  const double* taupi = nullptr;    // q squared
  const double* taubeta = nullptr;  // r squared
};

// The corrected predictor of a record with the random rows d (q, level 2) and e (r, level 3).
//   log link (exact for normal effects):  eta + (e'Tb e + d'Tp d) / 2
//   logit (Zeger, Liang and Albert, 1988, Biometrics 44, 1049-1060):  eta p^(-1/2), where p is the product of
//     det(I + c2 Tp d d') = 1 + c2 Q, Q = d'Tp d, and det(I + c3 Tb e e') = 1 + c3 e'Tb e, c3 = c2 / (1 + c2 Q),
//     with c2 = (16 sqrt(3) / (15 pi))^2; p of 0 or less leaves eta as it is
[[nodiscard]] double marginalpredictor(const MarginalCorrection& correction, const double* d, const double* e,
                                       double eta);

}  // namespace kdr
