// Moment estimators of the variance components from least-squares residuals, unit by unit. Derived in docs/numerics.md,
// "Starting values".
#pragma once

#include <optional>

#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// The squared residuals that the starting tau matrices were derived from, for their repair.
struct StartMoments {
  Array<double> taupi, taubeta;  // p squared, b squared
  bool shared = false;           // the taus are shares of the residual variance: there are no squared residuals
};

// True when the data tell all free variance parameters apart, whatever single units can: no derivative of the
// covariance of a level-3 unit's outcomes is a combination of the others over all units. With M = Zx'Zy of two sets of
// random effects, the product of the derivatives by x_ij and y_kl is a sum of terms M_jk M_il.
[[nodiscard]] bool identified(Pass& pass);

// Fills pass.est.sigma2, taupi and taubeta from the least-squares estimate in pass.est.gammahat, and the numbers of
// usable records and units in `pass`. taubeta is a first value here: `starttaubeta` gives the one that the iterations
// start from. Where the units' own fits give no moments, because none has records to spare, and the variance parameters
// are identified all the same, the residual variance is shared out among them, and taubeta needs no second value.
// Failures otherwise: 13 without usable units, 16 without degrees of freedom for sigma2, 2 without a usable level-3
// unit; words of its own for a sigma2 of nearly zero.
[[nodiscard]] Failure leastsquarestart(Pass& pass, StartMoments& moments);

// A start of another kind than that of the iterations, which may lie below another maximum: shares of the residual
// variance at the fixed effects at hand, but for fixed and equal elements. None where these leave no usable taus.
[[nodiscard]] std::optional<Estimates> sharedstart(Pass& pass);

// taubeta once more, from the repaired taupi: the value that the iterations start from.
[[nodiscard]] Failure starttaubeta(Pass& pass, StartMoments& moments);

}  // namespace kdr
