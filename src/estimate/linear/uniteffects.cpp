#include "estimate/linear/uniteffects.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Of one level-3 unit that is asked for.
struct Level3Effects {
  Array<double> W3;        // nbeta by g
  Array<double> H;         // b by nbeta
  Array<double> jacobian;  // b by g
};

Array<double> level3design(const Pass& pass, int k) {
  Array<double> weights(pass.design.owner3.size()), W3(at(pass.nbeta) * at(pass.g));
  level3weights(pass, k, weights.data());
  for (std::size_t i = 0; i < weights.size(); ++i)
    W3[at(pass.design.owner3[i] * pass.g + pass.design.reduced[i])] += weights[i];
  return W3;
}

// C_j^-1 (p squared) of a hot record, and Z1'B' (p by nbeta) of it.
void takeunit(const Pass& pass, const double* hot, Array<double>& C, Array<double>& Z1B) {
  unpack(pass.p, hot + pass.store.atCinv, C.data());
  for (int m = 0; m < pass.nbeta; ++m)
    for (int i = 0; i < pass.p; ++i) Z1B[at(i * pass.nbeta + m)] = hot[pass.store.atBZ1 + at(m * pass.p + i)];
}

// H less the share of one level-2 unit.
void takeshare(const Pass& pass, int k, const double* hot, Array<double>& C, Array<double>& Z1B, Array<double>& H) {
  const int p = pass.p, b = pass.b, nb = pass.nbeta;
  takeunit(pass, hot, C, Z1B);
  Array<double> CB(at(p) * at(nb)), Z2Z1(at(b) * at(p));
  mulAB(CB.data(), C.data(), Z1B.data(), p, nb, p);
  for (int i = 0; i < b; ++i)
    for (int l = 0; l < p; ++l) Z2Z1[at(i * p + l)] = pass.scale3[k] * Z1B[at(l * nb + i)];
  subAB(H.data(), Z2Z1.data(), CB.data(), b, nb, p);
}

void begin(const Pass& pass, int k, Level3Effects& of) {
  of.W3 = level3design(pass, k);
  of.H.reset(at(pass.b) * at(pass.nbeta));
  for (int i = 0; i < pass.b; ++i)
    for (int m = 0; m < pass.nbeta; ++m)
      of.H[at(i * pass.nbeta + m)] = pass.scale3[k] * pass.sumBB.row(k)[i * pass.nbeta + m];
}

void finish(const Pass& pass, int k, Level3Effects& of) {
  const int b = pass.b, nb = pass.nbeta, g = pass.g;
  Array<double> HW(at(b) * at(g));
  mulAB(HW.data(), of.H.data(), of.W3.data(), b, g, nb);
  of.jacobian.reset(at(b) * at(g));
  subAB(of.jacobian.data(), pass.dinv.row(k), HW.data(), b, g, b);
}

KnownEffects emptyeffects(const Pass& pass) {
  const int n = pass.p + pass.b;
  return {Array<double>(at(n)), Array<double>(square(n)), Array<double>(at(n) * at(pass.g))};
}

// v and its covariance; scale of Z2.
void putlevel3(const Pass& pass, int k, const Level3Effects& of, KnownEffects& made) {
  const int p = pass.p, b = pass.b, n = p + b;
  const double z = pass.scale3[k];
  for (int i = 0; i < b; ++i) {
    made.mean[at(p + i)] = z * pass.vstar.row(k)[i];
    for (int l = 0; l < b; ++l)
      made.covariance[at((p + i) * n + p + l)] = z * z * pass.est.sigma2 * pass.dinv.row(k)[i * b + l];
    for (int e = 0; e < pass.g; ++e) made.jacobian[at((p + i) * pass.g + e)] = z * of.jacobian[at(i * pass.g + e)];
  }
}

void putnewlevel2(const Pass& pass, KnownEffects& made) {
  const int n = pass.p + pass.b;
  for (int i = 0; i < pass.p; ++i)
    std::copy_n(pass.est.taupi.data() + i * pass.p, pass.p, made.covariance.data() + i * n);
}

void putlevel2(const Pass& pass, int k, std::size_t unit, const double* hot, const Level3Effects& of, Array<double>& C,
               Array<double>& Z1B, KnownEffects& made) {
  const int p = pass.p, b = pass.b, nb = pass.nbeta, g = pass.g, n = p + b;
  const double s = pass.est.sigma2, z = pass.scale3[k];
  const double d = pass.model().weighted ? 1.0 / std::sqrt(pass.weights().weight2[unit]) : 1.0;
  takeunit(pass, hot, C, Z1B);
  Array<double> CB(at(p) * at(nb)), A(at(p) * at(b)), AD(at(p) * at(b)), cov(square(p)), W(at(nb) * at(g));
  mulAB(CB.data(), C.data(), Z1B.data(), p, nb, p);
  for (int i = 0; i < p; ++i)
    for (int l = 0; l < b; ++l) A[at(i * b + l)] = z * CB[at(i * nb + l)];
  mulAB(AD.data(), A.data(), pass.dinv.row(k), p, b, b);
  cov = C.copy();
  addABt(cov.data(), AD.data(), A.data(), p, p, b);
  W = of.W3.copy();
  for (int l = 0; l < b; ++l)
    for (int e = 0; e < g; ++e) W[at(l * g + e)] += z * of.jacobian[at(l * g + e)];
  Array<double> J(at(p) * at(g));
  subAB(J.data(), CB.data(), W.data(), p, g, nb);
  for (int i = 0; i < p; ++i) {
    made.mean[at(i)] = d * hot[pass.store.atustar + at(i)];
    for (int l = 0; l < p; ++l) made.covariance[at(i * n + l)] = d * d * s * cov[at(i * p + l)];
    for (int l = 0; l < b; ++l)
      made.covariance[at(i * n + p + l)] = made.covariance[at((p + l) * n + i)] = -d * z * s * AD[at(i * b + l)];
    for (int e = 0; e < g; ++e) made.jacobian[at(i * g + e)] = d * J[at(i * g + e)];
  }
}

}  // namespace

std::vector<KnownEffects> uniteffects(Pass& pass, const std::vector<UnitPair>& pairs) {
  std::map<int, Level3Effects> of3;
  std::multimap<long long, std::size_t> of2;
  std::vector<KnownEffects> all;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    all.push_back(emptyeffects(pass));
    if (!of3.contains(pairs[i].level3)) begin(pass, pairs[i].level3, of3[pairs[i].level3]);
    if (pairs[i].level2 >= 0) of2.emplace(pairs[i].level2, i);
  }
  Array<double> C(square(pass.p)), Z1B(at(pass.p) * at(pass.nbeta));
  Level3Effects* asked = nullptr;
  sweepunits(
      pass.n2of,
      [&](int k) {
        const auto found = of3.find(k);
        asked = found == of3.end() ? nullptr : &found->second;
      },
      [&](int k, std::size_t, const double* hot) {
        if (asked != nullptr && pass.b > 0) takeshare(pass, k, hot, C, Z1B, asked->H);
      },
      [&](int k) {
        if (asked != nullptr) finish(pass, k, *asked);
      },
      reading(pass.store.hot));
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    putlevel3(pass, pairs[i].level3, of3[pairs[i].level3], all[i]);
    if (pairs[i].level2 < 0) putnewlevel2(pass, all[i]);
  }
  sweepunits(
      pass.n2of, [](int) {},
      [&](int k, std::size_t unit, const double* hot) {
        const auto [from, to] = of2.equal_range(static_cast<long long>(unit));
        for (auto at = from; at != to; ++at) putlevel2(pass, k, unit, hot, of3[k], C, Z1B, all[at->second]);
      },
      [](int) {}, reading(pass.store.hot));
  return all;
}

}  // namespace kdr
