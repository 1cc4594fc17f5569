#include "estimate/linear/point.h"

#include <cmath>
#include <utility>

#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

bool usableestimates(const Pass& pass, const Estimates& est) {
  return usablecovariance(est.taupi.data(), pass.p) && usablecovariance(est.taubeta.data(), pass.b) && est.sigma2 > 0.0;
}

int scaleinverse(const double* t, int n, double sigma2, Array<double>& S, double& logdet) {
  S.reset(at(n) * at(n));
  const Inversion inversion = invertsymmetric(n, t, S.data());
  logdet = inversion.logdeterminant();
  for (double& s : S) s *= sigma2;
  return inversion.result;
}

bool scaleinverses(const Pass& pass, const Estimates& est, ScaledInverses& inverses) {
  const int pi = scaleinverse(est.taupi.data(), pass.p, est.sigma2, inverses.S, inverses.logdetT);
  const int beta = scaleinverse(est.taubeta.data(), pass.b, est.sigma2, inverses.Sb, inverses.logdetL);
  return pi == 0 && beta == 0;
}

double loglikelihood(const Pass& pass, const PosteriorSums& sums, double sigma2, double logdettaupi,
                     double logdettaubeta) {
  const double Lsig = (static_cast<double>(pass.mdm().nunits3) * pass.b +
                       static_cast<double>(pass.mdm().nunits2) * pass.p - pass.nunits1) *
                      std::log(sigma2);
  return ((Lsig - logdettaubeta - logdettaupi + sums.logdetCinv + sums.logdetE) - sums.Q / sigma2) * 0.5 -
         pass.likeconstant;
}

double loglikelihood(const Pass& pass, const PosteriorSums& sums, double sigma2, const ScaledInverses& inverses) {
  return loglikelihood(pass, sums, sigma2, pass.mdm().nunits2 * inverses.logdetT,
                       pass.mdm().nunits3 * inverses.logdetL);
}

bool glsupdate(const Pass& pass, const PosteriorSums& sums, Estimates& est) {
  const int g = pass.g;
  Array<double> inverse(square(g));
  if (invertsymmetric(g, sums.A.data(), inverse.data()).result != 0) return false;
  if (!positivecovariance(inverse.data(), g) || !positivecovariance(sums.A.data(), g)) return false;
  est.vgamma = std::move(inverse);
  mulAB(est.gammahat.data(), est.vgamma.data(), sums.c.data(), g, 1, g);
  return true;
}

}  // namespace kdr
