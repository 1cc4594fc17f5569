// The estimates of a model.
#pragma once

#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

// Estimates, row-major. Orders: ngamma, ntaupi and ntaubeta.
struct Estimates {
  Array<double> gammahat;  // [ngamma]
  Array<double> taupi;     // order ntaupi, full symmetric
  Array<double> taubeta;   // order ntaubeta, full symmetric
  double sigma2 = 0.0;
  Array<double> vgamma;  // ngamma squared: sigma2 * vgamma is the covariance of gammahat

  [[nodiscard]] Array<double>& tau(Tau which) { return ofthe(which, taupi, taubeta); }
  [[nodiscard]] const Array<double>& tau(Tau which) const { return ofthe(which, taupi, taubeta); }

  [[nodiscard]] Estimates copy() const {
    return {gammahat.copy(), taupi.copy(), taubeta.copy(), sigma2, vgamma.copy()};
  }
  // Of gammahat, by the model.
  [[nodiscard]] Array<double> covariance() const;
};

}  // namespace kdr
