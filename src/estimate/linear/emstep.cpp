#include "estimate/linear/emstep.h"

#include <algorithm>
#include <cmath>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/restriction.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "report/matrixtables.h"

namespace kdr {

namespace {

// S = sigma2 t^-1 for a tau that the step needs as a covariance; failures 12 and 15 otherwise.
Array<double> covarianceinverse(const double* t, int n, Tau which, double& logdet) {
  Array<double> S;
  if (scaleinverse(t, n, run.est.sigma2, S, logdet) != 0) fail(12, which == Tau::pi ? "tau(pi)" : "tau(beta)");
  if (!positivecovariance(t, n)) {
    if (hasunitcorrelation(n, t, n)) correlationtable(which, n, t);
    fail(15);
  }
  return S;
}

// T := the moment (s X + R) / n, n the number of units, under the restrictions of its level.
void updatetau(Array<double>& T, const Array<double>& X, const Array<double>& R, int units, int order, Tau which) {
  Array<double> moment(T.size());
  for (std::size_t i = 0; i < moment.size(); ++i) moment[i] = (run.est.sigma2 * X[i] + R[i]) / units;
  maximisetau(T.data(), moment.data(), order, taurestriction(which));
}

// T_k, the same over the level-2 units of one level-3 unit.
void updatehettaupi(double* T, const Pass& pass, const Level3Posterior& unit) {
  if (unit.units == 0) return;
  Array<double> moment(unit.PP.size());
  for (std::size_t i = 0; i < moment.size(); ++i) moment[i] = (run.est.sigma2 * unit.PP[i] + unit.UU[i]) / unit.units;
  maximisetau(T, moment.data(), pass.p, taurestriction(Tau::pi));
}

}  // namespace

bool usableestimates(const Pass& pass) {
  return usablecovariance(run.est.taupi.data(), pass.p) && usablecovariance(run.est.taubeta.data(), pass.b) &&
         run.est.sigma2 > 0.0;
}

int scaleinverse(const double* t, int n, double sigma2, Array<double>& S, double& logdet) {
  S.reset(at(n) * at(n));
  const Inversion inversion = invertsymmetric(n, t, S.data());
  logdet = std::log(inversion.determinant);
  for (double& s : S) s *= sigma2;
  return inversion.result;
}

double loglikelihood(const Pass& pass, const PosteriorSums& sums, double logdettaupi, double logdettaubeta) {
  const double Lsig = (static_cast<double>(run.mdm.nunits3) * pass.b + static_cast<double>(run.mdm.nunits2) * pass.p -
                       run.mdm.nunits1) *
                      std::log(run.est.sigma2);
  return ((Lsig - logdettaubeta - logdettaupi + sums.logdetCinv + sums.logdetE) - sums.Q / run.est.sigma2) * 0.5 -
         pass.likeconstant;
}

bool glsupdate(const Pass& pass, const PosteriorSums& sums) {
  const int g = pass.g;
  Array<double> inverse(square(g));
  if (invertsymmetric(g, sums.A.data(), inverse.data()).result != 0) return false;
  if (!positivecovariance(inverse.data(), g) || !positivecovariance(sums.A.data(), g)) return false;
  run.est.vgamma = std::move(inverse);
  mulAB(run.est.gammahat.data(), run.est.vgamma.data(), sums.c.data(), g, 1, g);
  return true;
}

void emstep(Pass& pass, Likelihood& likelihood, EmSums& em, UnitTable<double>* hettaupi) {
  if (run.est.sigma2 < 0.0) fail(15);
  double Ldelta = 0.0, Ltau = 0.0;
  const Array<double> Sb = covarianceinverse(run.est.taubeta.data(), pass.b, Tau::beta, Ldelta);
  Ldelta *= run.mdm.nunits3;
  Array<double> S;
  if (hettaupi == nullptr) {
    S = covarianceinverse(run.est.taupi.data(), pass.p, Tau::pi, Ltau);
    Ltau *= run.mdm.nunits2;
  }

  PosteriorSums sums;
  Level3Visitor visitor;
  if (hettaupi != nullptr)
    visitor = [&](const Level3Posterior& unit) { updatehettaupi(hettaupi->row(unit.k), pass, unit); };
  const PosteriorInput input{run.est.sigma2, run.est.gammahat.data(), S.data(), Sb.data(), hettaupi, true};
  const PosteriorResult result = posteriorsweep(pass, input, sums, visitor);
  if (result == PosteriorResult::badT) fail(12, "tau(pi)");
  if (result != PosteriorResult::ok) fail(15);
  if (hettaupi != nullptr) Ltau = sums.logdetT;

  const double current = loglikelihood(pass, sums, Ltau, Ldelta);
  if (!glsupdate(pass, sums)) {
    report("V11(GLS) is not positive-definite");
    fail(11);
  }
  if (!pass.plan.tausstand()) {
    if (hettaupi == nullptr) updatetau(run.est.taupi, sums.PP, sums.UU, run.mdm.nunits2, pass.p, Tau::pi);
    updatetau(run.est.taubeta, sums.sumDinv, sums.VV, run.mdm.nunits3, pass.b, Tau::beta);
  }
  em = {sums.traceacc, sums.rss};
  likelihood = {likelihood.current, current};
}

}  // namespace kdr
