#include "estimate/linear/unitresults.h"

#include <algorithm>
#include <cmath>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// packed = sigma2 times full, of order n.
void packscaled(int n, const double* full, double sigma2, Array<double>& packed) {
  pack(n, full, packed.data());
  for (double& x : packed) x *= sigma2;
}

}  // namespace

UnitResults makeunitresults(const Pass& pass) {
  UnitResults results;
  results.level3.EB.reset(at(pass.b));
  results.level3.OL.reset(at(pass.b));
  results.level3.FV.reset(at(pass.nbeta));
  results.level3.EC.reset(at(pass.nbeta));
  results.level3.PV.reset(packedsize(pass.b));
  results.level2.EB.reset(at(pass.p));
  results.level2.OL.reset(at(pass.p));
  results.level2.FV.reset(at(pass.npi));
  results.level2.EC.reset(at(pass.npi));
  results.level2.PV.reset(packedsize(pass.p));
  results.means = makeunitmeans(pass);
  results.C.reset(square(pass.p));
  results.AE.reset(at(pass.p) * at(pass.b));
  results.A.reset(at(pass.p) * at(pass.b));
  results.residual.reset(at(pass.p));
  results.inverse.reset(square(pass.p));
  return results;
}

void level3results(const Pass& pass, int k, double missing, UnitResults& results) {
  const int b = pass.b;
  UnitResults::Level3& out = results.level3;
  const double* v = pass.vstar.row(k);
  const double* vlsq = pass.vlsq.row(k);
  std::copy_n(v, b, out.EB.data());
  if (hasleastsquares3(pass, k)) {
    std::copy_n(vlsq, b, out.OL.data());
  } else {
    out.OL.fill(missing);
  }
  takeunitmeans(pass, k, pass.est.gammahat.data(), v, results.means);
  for (std::size_t i = 0; i < at(pass.nbeta); ++i) {
    const int column = pass.design.column2[i];
    out.FV[i] = results.means.theta[column];
    out.EC[i] = results.means.thetastar[column];
  }
  packscaled(b, pass.dinv.row(k), pass.est.sigma2, out.PV);
}

void level2coefficients(const Pass& pass, std::size_t unit, const double* hot, const double* cold,
                        UnitResults& results) {
  UnitResults::Level2& out = results.level2;
  std::copy_n(hot + pass.store.atustar, pass.p, out.EB.data());
  level2coefficients(pass, cold + pass.store.atlevel2, results.means.thetastar.data(), out.FV.data());
  std::copy(out.FV.begin(), out.FV.end(), out.EC.begin());
  addlevel2effects(pass, unit, out.EB.data(), out.EC.data());
}

void level2variance(const Pass& pass, int k, const double* hot, UnitResults& results) {
  const int p = pass.p, b = pass.b;
  unpack(p, hot + pass.store.atCinv, results.C.data());
  mulABt(results.A.data(), results.C.data(), hot + pass.store.atBZ1, p, b, p);
  for (double& a : results.A) a *= pass.scale3[k];
  mulAB(results.AE.data(), results.A.data(), pass.dinv.row(k), p, b, b);
  addABt(results.C.data(), results.AE.data(), results.A.data(), p, p, b);
  packscaled(p, results.C.data(), pass.est.sigma2, results.level2.PV);
}

void level2residuals(const Pass& pass, int k, const double* hot, const double* cold, double missing,
                     UnitResults& results) {
  const int p = pass.p;
  UnitResults::Level2& out = results.level2;
  if (!usableunit(pass.store, cold)) {
    out.OL.fill(missing);
  } else {
    unpack(p, cold + pass.store.atinverse, results.inverse.data());
    residualproduct(pass.store, hot, results.means.thetastar.data(), results.residual.data());
    mulAB(out.OL.data(), results.inverse.data(), results.residual.data(), p, 1, p);
  }
  level2variance(pass, k, hot, results);
}

Array<double> posteriormeans2(Pass& pass) {
  Array<double> u(at(pass.mdm().nunits2) * at(pass.p));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int, std::size_t j, const double* hot) {
        std::copy_n(hot + pass.store.atustar, pass.p, u.data() + j * at(pass.p));
      },
      [](int) {}, reading(pass.store.hot));
  return u;
}

Posteriors posteriors(Pass& pass) {
  const std::size_t p = at(pass.p);
  Posteriors all;
  all.u = posteriormeans2(pass);
  all.uvariance.reset(all.u.size() * p);
  all.v = pass.vstar.cells.copy();
  all.vvariance = pass.dinv.cells.copy();
  for (double& v : all.vvariance) v *= pass.est.sigma2;
  UnitResults unit = makeunitresults(pass);
  sweepunits(
      pass.n2of, [](int) {},
      [&](int k, std::size_t j, const double* hot) {
        level2variance(pass, k, hot, unit);
        unpack(pass.p, unit.level2.PV.data(), all.uvariance.data() + j * p * p);
      },
      [](int) {}, reading(pass.store.hot));
  return all;
}

void level3results(const Pass& pass, const FittedEffects& fitted, int k, double missing, UnitResults& results) {
  const std::size_t b = at(pass.b);
  UnitResults::Level3& out = results.level3;
  UnitMeans& means = results.means;
  const double* v = fitted.random.v.data() + at(k) * b;
  std::copy_n(v, b, out.EB.data());
  out.OL.fill(missing);
  level3weights(pass, k, means.weights.data());
  level2means(pass.design, means.weights.data(), fitted.gamma.data(), means.theta.data());
  std::copy(means.theta.begin(), means.theta.end(), means.thetastar.begin());
  for (std::size_t i = 0; i < b; ++i) means.thetastar[i] += v[i];
  for (std::size_t i = 0; i < at(pass.nbeta); ++i) {
    const int column = pass.design.column2[i];
    out.FV[i] = means.theta[column];
    out.EC[i] = means.thetastar[column];
  }
  pack(pass.b, fitted.random.vvariance.data() + at(k) * b * b, out.PV.data());
}

void level2results(const Pass& pass, const FittedEffects& fitted, std::size_t unit, const double* level2,
                   double missing, UnitResults& results) {
  const std::size_t p = at(pass.p);
  UnitResults::Level2& out = results.level2;
  std::copy_n(fitted.random.u.data() + unit * p, p, out.EB.data());
  out.OL.fill(missing);
  level2coefficients(pass, level2, results.means.thetastar.data(), out.FV.data());
  std::copy(out.FV.begin(), out.FV.end(), out.EC.begin());
  for (std::size_t i = 0; i < p; ++i) out.EC[pass.design.random1[i]] += out.EB[i];
  pack(pass.p, fitted.random.uvariance.data() + unit * p * p, out.PV.data());
}

}  // namespace kdr
