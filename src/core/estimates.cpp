#include "core/estimates.h"

namespace kdr {

Array<double> Estimates::covariance() const {
  Array<double> covariance = vgamma.copy();
  for (double& v : covariance) v *= sigma2;
  return covariance;
}

}  // namespace kdr
