#include "estimate/linear/marginalvalue.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "estimate/linear/marginalunit.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// One sweep with one visit to each unit; visit(k, unit) has Y1 of each level-3 unit.
template <class Visit>
void sweepvalues(MarginalSums& sums, const Estimates& theta, const Array<double>& gamma, Visit visit) {
  MarginalUnit unit(sums);
  sweeplevel3(
      sums.n2of,
      [&](int k, std::size_t, const double* records) {
        beginunit(sums, k, theta.sigma2, gamma.data(), unit);
        MarginalFirst first{unit.theta.data(),
                            theta.taupi.data(),
                            theta.sigma2,
                            1,
                            false,
                            unit.G1.data(),
                            nullptr,
                            nullptr,
                            0.0,
                            0.0,
                            0.0,
                            nullptr};
        marginalloops().first(
            {records, sums.units.stride(), sums.n2of[k], sums.p, sums.b, sums.columns(), unit.loopwork.data()}, first);
        unit.logdeterminant += first.logdeterminant;
        finishvalue(sums, theta, unit);
        visit(k, unit);
      },
      reading(sums.units));
}

}  // namespace

MarginalValue marginalvalueof(const MarginalSums& sums, const Estimates& theta, const LevelForm& total,
                              double logdeterminants, Array<double>& change) {
  const int g = sums.g;
  MarginalValue value;
  // gamma = gamma0 + Phi M'V^-1 r
  Array<double> X(square(g));
  change.reset(at(g));
  double logdetPhi = 0.0;
  {
    Array<double> scaled(square(g)), L(square(g));
    for (int i = 0; i < g; ++i)
      if (!(total.xx[i * g + i] > 0.0)) return value;
    const auto scale = [&](int i) { return std::sqrt(total.xx[i * g + i]); };
    for (int i = 0; i < g; ++i)
      for (int j = 0; j < g; ++j) scaled[i * g + j] = total.xx[i * g + j] / (scale(i) * scale(j));
    if (collinear(scaled.data(), g) || !choleskyfactor(at(g), scaled.data(), L.data())) return value;
    for (int i = 0; i < g; ++i) logdetPhi -= 2.0 * (std::log(L[i * g + i]) + std::log(scale(i)));
    Array<double> Linverse(square(g));
    invertlower(at(g), L.data(), Linverse.data());
    inversefromfactor(at(g), Linverse.data(), X.data());
    for (int i = 0; i < g; ++i)
      for (int j = 0; j < g; ++j) X[i * g + j] /= scale(i) * scale(j);
  }
  mulAB(change.data(), X.data(), total.xr.data(), g, 1, g);
  const double rss = total.rr - dot(change.data(), total.xr.data(), at(g));
  value.gamma = theta.gammahat.copy();
  for (int i = 0; i < g; ++i) value.gamma[i] += change[i];
  value.covariance = std::move(X);
  const double logdet = sums.records1 * std::log(theta.sigma2) + logdeterminants;
  const double log2pi = std::log(2.0 * std::numbers::pi);
  value.loglik = -0.5 * (sums.records1 * log2pi + logdet + rss);
  value.restricted = value.loglik + 0.5 * (g * log2pi + logdetPhi);
  value.known = std::isfinite(value.loglik) && std::isfinite(value.restricted);
  return value;
}

void eachlevel3form(MarginalSums& sums, const Estimates& theta, const Array<double>& gamma,
                    const std::function<void(int k, const LevelForm& form)>& use) {
  sweepvalues(sums, theta, gamma, [&](int k, const MarginalUnit& unit) {
    LevelForm form(sums.g);
    addform(sums, unit, unit.Y1.data(), form);
    use(k, form);
  });
}

MarginalValue marginalvalue(MarginalSums& sums, const Estimates& theta) {
  if (!(theta.sigma2 > 0.0) || !std::isfinite(theta.sigma2)) return {};
  LevelForm total(sums.g);  // of V^-1, with r at the fixed effects of theta
  double logdeterminants = 0.0;
  sweepvalues(sums, theta, theta.gammahat, [&](int, const MarginalUnit& unit) {
    addform(sums, unit, unit.Y1.data(), total);
    logdeterminants += unit.logdeterminant;
  });
  Array<double> change;
  return marginalvalueof(sums, theta, total, logdeterminants, change);
}

}  // namespace kdr
