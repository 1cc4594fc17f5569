// Moment estimators of the variance components from least-squares residuals, unit by unit.
#pragma once

#include "kernel/array.h"
#include "linear/pass.h"

namespace kdr {

// The squared residuals that the starting tau matrices were derived from, for their repair.
struct StartMoments {
  Array<double> taupi, taubeta;  // p squared, b squared
};

// Fills run.est.sigma2, taupi and taubeta from the least-squares estimate in run.est.gammahat, and the numbers of
// usable records and units in `pass`. taubeta is a first value here: `starttaubeta` gives the one that the iterations
// start from. Raises 13 without usable units, 16 without degrees of freedom for sigma2, 2 without a usable level-3
// unit, 100 for a sigma2 of nearly zero.
void leastsquarestart(Pass& pass, StartMoments& moments);

// taubeta once more, from the repaired taupi: the value that the iterations start from.
void starttaubeta(Pass& pass, StartMoments& moments);

}  // namespace kdr
