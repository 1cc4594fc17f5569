#include "linear/emstep.h"

#include <algorithm>
#include <cmath>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "linear/fixtau.h"
#include "report/matrixtables.h"

namespace kdr {

namespace {

std::size_t at(int i) { return static_cast<std::size_t>(i); }

// S = sigma2 t^-1 for a tau that the step needs as a covariance; failures 12 and 15 otherwise.
Array<double> covarianceinverse(const double* t, int n, int level, double& logdet) {
  Array<double> S;
  if (scaleinverse(t, n, run.est.sigma2, S, logdet) != 0) fail(12, level == 1 ? "tau(pi)" : "tau(beta)");
  double condition = 0.0;
  if (isbadcov(n, t, n, &condition)) {
    if (hasunitcorrelation(n, t, n)) correlationtable(level, n, t);
    fail(15);
  }
  return S;
}

bool usablediagonals(const double* m, int n) {
  for (int i = 0; i < n; ++i)
    if (!(m[i * n + i] >= 0.0)) return false;
  return !hasunitcorrelation(n, m, n) && ispositivedefinite(n, m, n, nullptr);
}

void updatetaupi(const Pass& pass, const PosteriorSums& sums) {
  double* T = run.est.taupi.data();
  for (std::size_t i = 0; i < sums.PP.size(); ++i)
    T[i] = run.est.sigma2 * sums.PP[i] / run.mdm.nunits2 + sums.UU[i] / run.mdm.nunits2;
  applytaupi(T);
  if (run.out.diagtaupi) cleardiagonaloff(T, pass.p);
}

void updatetaubeta(const Pass& pass, const PosteriorSums& sums) {
  double* L = run.est.taubeta.data();
  for (std::size_t i = 0; i < sums.VV.size(); ++i)
    L[i] = run.est.sigma2 * sums.sumDinv[i] / run.mdm.nunits3 + sums.VV[i] / run.mdm.nunits3;
  applytaubeta(L);
  if (run.out.diagtaubeta) cleardiagonaloff(L, pass.b);
}

// T_k = (sigma2 sum V_j + sum u_j u_j') / n2of[k] of one level-3 unit.
void updatehettaupi(void* state, const Pass& pass, const Level3Posterior& unit) {
  double* T = static_cast<double*>(state) + static_cast<std::ptrdiff_t>(unit.k) * pass.p * pass.p;
  for (std::size_t i = 0; i < unit.PP.size(); ++i) T[i] = (run.est.sigma2 * unit.PP[i] + unit.UU[i]) / unit.units;
  applytaupi(T);
}

}  // namespace

int scaleinverse(const double* t, int n, double sigma2, Array<double>& S, double& logdet) {
  S.reset(at(n) * at(n));
  Array<double> work(packedsize(n) + 3);
  const int result = syminverse(n, t, n, S.data(), n, work.data());
  logdet = std::log(work[0]);
  for (double& s : S) s *= sigma2;
  return result;
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
  Array<double> inverse(at(g) * at(g)), work(packedsize(g) + 3);
  if (syminverse(g, sums.A.data(), g, inverse.data(), g, work.data()) != 0) return false;
  if (!usablediagonals(inverse.data(), g) || !usablediagonals(sums.A.data(), g)) return false;
  run.est.vgamma = std::move(inverse);
  mulAB(run.est.gammahat.data(), run.est.vgamma.data(), sums.c.data(), g, 1, g);
  return true;
}

void emstep(Pass& pass, Likelihood& likelihood, EmSums& em, double* hettaupi) {
  if (run.est.sigma2 < 0.0) fail(15);
  double Ldelta = 0.0, Ltau = 0.0;
  const Array<double> Sb = covarianceinverse(run.est.taubeta.data(), pass.b, 2, Ldelta);
  Ldelta *= run.mdm.nunits3;
  Array<double> S;
  if (hettaupi == nullptr) {
    S = covarianceinverse(run.est.taupi.data(), pass.p, 1, Ltau);
    Ltau *= run.mdm.nunits2;
  }

  PosteriorSums sums;
  Level3Visitor visitor;
  if (hettaupi != nullptr) visitor = {updatehettaupi, hettaupi};
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
  if (run.pass.paphase == 0) {
    if (hettaupi == nullptr) updatetaupi(pass, sums);
    updatetaubeta(pass, sums);
  }
  em = {sums.traceacc, sums.rss};
  likelihood = {likelihood.current, current};
}

}  // namespace kdr
