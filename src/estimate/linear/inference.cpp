#include "estimate/linear/inference.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/modelwalk.h"
#include "estimate/inference/teststatistics.h"
#include "estimate/linear/usable.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Calls use(k, inverse) for each level-3 unit with the inverse of pass.within, or with null when it is not usable.
template <class Use>
void eachwithin(Pass& pass, Use use) {
  Array<double> inverse(square(pass.b));
  for (int k = 0; k < pass.mdm().nunits3; ++k)
    use(k, invertcovariance(pass.within.row(k), pass.b, inverse.data()) ? inverse.data() : nullptr);
}

// What a scoring step from the estimates would move, in standard errors: the largest over its elements. A step that
// leaves the space of covariance matrices is halved, as the iterations halve it; -1 when it leaves it all the same,
// from estimates at its edge.
double stepleft(const Pass& pass, const FisherWork& fisher) {
  constexpr int tries = 6;
  const Array<double> d = scoringdirection(fisher);
  double largest = 0.0;
  for (std::size_t i = 0; i < d.size(); ++i) {
    const double variance = fisher.invinformation[i * d.size() + i];
    if (variance > 0.0) largest = std::max(largest, std::fabs(d[i]) / std::sqrt(variance));
  }
  double factor = 1.0;
  for (int t = 0; t < tries; ++t, factor *= 0.5)
    if (stepstays(pass, pass.est, d, factor)) return factor * largest;
  return -1.0;
}

}  // namespace

TauErrors tauerrors(Pass& pass, FisherWork& fisher) {
  TauErrors errors;
  errors.asked = pass.control().fishertype != FisherType::none;
  if (!errors.asked) return errors;
  Likelihood unused{};
  errors.known = fisherstep(pass, fisher, unused, Scoring::asks);
  if (!errors.known) return errors;
  errors.taupi = standarderrors(fisher.invinformation, fisher.NT, 0, pass.p);
  errors.taubeta = standarderrors(fisher.invinformation, fisher.NT, packedsize(pass.p), pass.b);
  errors.order = fisher.NT - 1;
  errors.covariance.reset(square(errors.order));
  for (int i = 0; i < errors.order; ++i)
    std::copy_n(fisher.invinformation.data() + i * fisher.NT, errors.order,
                errors.covariance.data() + i * errors.order);
  errors.sigma2variance = std::fabs(fisher.invinformation[square(fisher.NT) - 1]);
  errors.sigma2 = std::sqrt(errors.sigma2variance);
  errors.stepleft = stepleft(pass, fisher);
  return errors;
}

Reliabilities reliabilities(Pass& pass) {
  const int p = pass.p, b = pass.b;
  Reliabilities rel{Array<double>(at(p)), Array<double>(at(b)), 0, 0};
  Array<double> inverse(square(p));
  // rel += tau[i][i] / (s variance[i][i] + tau[i][i])
  const auto add = [&](Array<double>& sum, const Array<double>& tau, const double* variance, int n) {
    for (int i = 0; i < n; ++i) sum[i] += tau[i * n + i] / (pass.est.sigma2 * variance[i * n + i] + tau[i * n + i]);
  };
  const auto nothing = [](int) {};
  sweepunits(
      pass.n2of, nothing,
      [&](int, std::size_t, const double* cold) {
        if (!usableunit(pass.store, cold)) return;
        ++rel.units2;
        unpack(p, cold + pass.store.atinverse, inverse.data());
        add(rel.level2, pass.est.taupi, inverse.data(), p);
      },
      nothing, reading(pass.store.cold));
  eachwithin(pass, [&](int, const double* within) {
    if (within == nullptr) return;
    ++rel.units3;
    add(rel.level3, pass.est.taubeta, within, b);
  });
  for (double& r : rel.level2) r /= rel.units2;
  for (double& r : rel.level3) r /= rel.units3;
  return rel;
}

VarianceTests variancetests(Pass& pass) {
  const int p = pass.p, b = pass.b;
  const double s = pass.est.sigma2;
  VarianceTests tests;
  Array<double> chisq2(at(p)), chisq3(at(b));
  pass.vlsq.reset(pass.n2of.size(), at(b));
  eachwithin(pass, [&](int k, const double* inverse) {
    double* vlsq = pass.vlsq.row(k);
    if (inverse == nullptr) {
      std::fill_n(vlsq, b, absent);
      return;
    }
    ++tests.units3;
    mulAB(vlsq, inverse, pass.vright.row(k), b, 1, b);
    for (int i = 0; i < b; ++i) chisq3[i] += vlsq[i] * vlsq[i] / (s * inverse[i * b + i]);
  });

  UnitMeans means = makeunitmeans(pass);
  Array<double> inverse(square(p)), a(at(p));
  bool usable3 = false;
  sweepunits(
      pass.n2of,
      [&](int k) {
        usable3 = hasleastsquares3(pass, k);
        if (usable3) takeunitmeans(pass, k, pass.est.gammahat.data(), pass.vlsq.row(k), means);
      },
      [&](int, std::size_t, const double* hot, const double* cold) {
        if (!usable3 || !usableunit(pass.store, cold)) return;
        ++tests.units2;
        unpack(p, cold + pass.store.atinverse, inverse.data());
        residualproduct(pass.store, hot, means.thetastar.data(), a.data());
        for (int i = 0; i < p; ++i) {
          double ols = 0.0;
          for (int l = 0; l < p; ++l) ols += inverse[i * p + l] * a[l];
          chisq2[i] += ols * ols / (s * inverse[i * p + i]);
        }
      },
      [](int) {}, reading(pass.store.hot), reading(pass.store.cold));

  for (int i = 0; i < p; ++i)
    tests.level2.push_back(variancetest(
        tests.units2 - static_cast<long long>(pass.nrandomterms[i]) * tests.units3 - pass.nfixedterms[i], chisq2[i]));
  for (int i = 0; i < b; ++i) tests.level3.push_back(variancetest(tests.units3 - pass.nterms3reduced[i], chisq3[i]));
  return tests;
}

namespace {

// The sum over the level-3 units of e e', e = M'(Y - M gamma) by least squares, or M'(Y - M gamma - Z1 u - Z2 v) /
// sigma2.
Array<double> scoreproducts(Pass& pass, bool leastsquares) {
  const int nb = pass.nbeta, p = pass.p, g = pass.g;
  Array<double> total(square(g)), r(at(nb)), e(at(g));
  const Array<double> none(at(pass.b));
  UnitMeans means = makeunitmeans(pass);
  sweepunits(
      pass.n2of,
      [&](int k) {
        takeunitmeans(pass, k, pass.est.gammahat.data(), leastsquares ? none.data() : pass.vstar.row(k), means);
        std::copy_n(pass.sumBY.row(k), nb, r.data());
        subAB(r.data(), pass.sumBB.row(k), means.thetastar.data(), nb, 1, nb);
      },
      [&](int, std::size_t, const double* hot) {
        if (!leastsquares) subAB(r.data(), hot + pass.store.atBZ1, hot + pass.store.atustar, nb, 1, p);
      },
      [&](int) {
        e.fill(0.0);
        addtransposedW3(pass.design, means.weights.data(), r.data(), e.data());
        if (!leastsquares)
          for (double& x : e) x *= 1.0 / pass.est.sigma2;
        addABt(total.data(), e.data(), e.data(), g, g, 1);
      },
      reading(pass.store.hot));
  return total;
}

}  // namespace

Array<double> robustcovariance(Pass& pass, bool leastsquares) {
  const int g = pass.g;
  // The scores sum to 0, so those of as few units as this are singular, whatever rounding makes of their determinant.
  if (independentunits(pass) <= g) return {};
  const Array<double> scores = scoreproducts(pass, leastsquares);
  Array<double> V = leastsquares ? pass.est.vgamma.copy() : pass.est.covariance(), half(square(g)), robust(square(g));
  mulAB(half.data(), V.data(), scores.data(), g, g, g);
  mulAB(robust.data(), half.data(), V.data(), g, g, g);
  return positivecovariance(robust.data(), g) ? std::move(robust) : Array<double>();
}

bool fewunits(const Pass& pass) {
  constexpr int enough = 20;
  const ModelRows rows = modelrows(pass.model());
  const bool two = pass.mdm().twolevel();
  return std::any_of(rows.terms.begin(), rows.terms.end(), [&](const TermRow& term) {
    return independentunits(pass) - (two ? rows.owner(term).nterms : term.neffects) < enough;
  });
}

}  // namespace kdr
