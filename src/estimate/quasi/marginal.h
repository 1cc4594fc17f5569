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
//   logit (Zeger, Liang and Albert, 1988, Biometrics 44, 1049-1060):  eta (1 + c2 (e'Tb e + d'Tp d))^(-1/2) with
//     c2 = (16 sqrt(3) / (15 pi))^2; det(I + c2 Tp d d') is 1 + c2 d'Tp d whatever the number of effects
[[nodiscard]] double marginalpredictor(const MarginalCorrection& correction, const double* d, const double* e,
                                       double eta);

}  // namespace kdr
