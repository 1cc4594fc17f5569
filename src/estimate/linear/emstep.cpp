#include "estimate/linear/emstep.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/restriction.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// S = sigma2 t^-1 for a tau that the step needs as a covariance; failures 12 and 15 otherwise.
Failure covarianceinverse(const Pass& pass, Tau which, Array<double>& S, double& logdet) {
  const int n = pass.order(which);
  const double* t = pass.est.tau(which).data();
  if (scaleinverse(t, n, pass.est.sigma2, S, logdet) != 0) return failed(12, std::string("tau(") + nameof(which) + ")");
  if (positivecovariance(t, n)) return {};
  if (hasunitcorrelation(n, t, n))
    tellobserver(pass.observer().badtau, BadTau{BadTau::Why::unitcorrelation, which, n, t});
  return failed(15);
}

// T := the moment (s X + R) / n, n the number of units, under the restrictions of its level.
void updatetau(const Pass& pass, Array<double>& T, const Array<double>& X, const Array<double>& R, int units, int order,
               Tau which) {
  Array<double> moment(T.size());
  for (std::size_t i = 0; i < moment.size(); ++i) moment[i] = (pass.est.sigma2 * X[i] + R[i]) / units;
  maximisetau(T.data(), moment.data(), order, taurestriction(pass.model(), which));
}

// T_k, the same over the level-2 units of one level-3 unit.
void updatehettaupi(double* T, const Pass& pass, const Level3Posterior& unit) {
  if (unit.units == 0) return;
  Array<double> moment(unit.PP.size());
  for (std::size_t i = 0; i < moment.size(); ++i) moment[i] = (pass.est.sigma2 * unit.PP[i] + unit.UU[i]) / unit.units;
  maximisetau(T, moment.data(), pass.p, taurestriction(pass.model(), Tau::pi));
}

}  // namespace

Failure emstep(Pass& pass, Likelihood& likelihood, EmSums& em, UnitTable<double>* hettaupi) {
  if (pass.est.sigma2 < 0.0) return failed(15);
  double Ldelta = 0.0, Ltau = 0.0;
  Array<double> S, Sb;
  if (Failure failure = covarianceinverse(pass, Tau::beta, Sb, Ldelta)) return failure;
  Ldelta *= pass.mdm().nunits3;
  if (hettaupi == nullptr) {
    if (Failure failure = covarianceinverse(pass, Tau::pi, S, Ltau)) return failure;
    Ltau *= pass.mdm().nunits2;
  }

  PosteriorSums sums;
  Level3Visitor visitor;
  if (hettaupi != nullptr)
    visitor = [&](const Level3Posterior& unit) { updatehettaupi(hettaupi->row(unit.k), pass, unit); };
  const PosteriorInput input{pass.est.sigma2, pass.est.gammahat.data(), S.data(), Sb.data(), hettaupi, true};
  const PosteriorResult result = posteriorsweep(pass, input, sums, visitor);
  if (result == PosteriorResult::badT) return failed(12, "tau(pi)");
  if (result != PosteriorResult::ok) return failed(15);
  if (hettaupi != nullptr) Ltau = sums.logdetT;

  const double current = loglikelihood(pass, sums, pass.est.sigma2, Ltau, Ldelta);
  if (!glsupdate(pass, sums, pass.est)) {
    Failure failure = failed(11);
    failure.reportwords = "V11(GLS) is not positive-definite";
    return failure;
  }
  if (!pass.plan.tausstand()) {
    if (hettaupi == nullptr) updatetau(pass, pass.est.taupi, sums.PP, sums.UU, pass.mdm().nunits2, pass.p, Tau::pi);
    updatetau(pass, pass.est.taubeta, sums.sumDinv, sums.VV, pass.mdm().nunits3, pass.b, Tau::beta);
  }
  em = {sums.traceacc, sums.rss};
  likelihood = {likelihood.current, current};
  return {};
}

}  // namespace kdr
