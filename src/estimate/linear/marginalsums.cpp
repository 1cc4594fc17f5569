#include "estimate/linear/marginalsums.h"

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

// X = S_AA^+ (p squared), of S_AA at a unit diagonal, whose small eigenvalues are left out.
void pseudoinverse(const double* S, int p, Array<double>& X) {
  constexpr double nothing = 1.0e-10, ordinary = 1.0e-3;
  // As a rule nothing is left out, and the determinant at a unit diagonal says so: no eigenvalue is below it over p^p.
  const Inversion inversion = invertsymmetric(p, S, X.data());
  double diagonal = 1.0;
  for (int i = 0; i < p; ++i) diagonal *= S[i * p + i];
  if (inversion.result == 0 && !inversion.negative && inversion.determinant > ordinary * diagonal && diagonal > 0.0)
    return;
  Array<double> scaled(square(p)), values(at(p)), vectors(square(p)), scale(at(p));
  for (int i = 0; i < p; ++i) scale[i] = S[i * p + i] > 0.0 ? 1.0 / std::sqrt(S[i * p + i]) : 0.0;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j < p; ++j) scaled[i * p + j] = S[i * p + j] * scale[i] * scale[j];
  spectrum(at(p), scaled.data(), values.data(), vectors.data());
  X.fill(0.0);
  for (int e = 0; e < p; ++e) {
    if (!(values[e] > nothing)) continue;
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < p; ++j)
        X[i * p + j] += scale[i] * vectors[i * p + e] / values[e] * vectors[j * p + e] * scale[j];
  }
}

// [Y | B]'[Y | B] of a level-3 unit.
void crossproducts(const Pass& pass, int k, double* S) {
  const int C = 1 + pass.nbeta, nb = pass.nbeta;
  const auto scale = [&](int i) { return i < pass.b ? pass.scale3[k] : 1.0; };
  S[0] = pass.sumYY[k];
  for (int i = 0; i < nb; ++i) {
    S[firstB + i] = S[(firstB + i) * C] = scale(i) * pass.sumBY.row(k)[i];
    for (int j = 0; j < nb; ++j) S[(firstB + i) * C + firstB + j] = scale(i) * scale(j) * pass.sumBB.row(k)[i * nb + j];
  }
}

// [Y | B]'A of a level-2 unit of k: B'Z1 stands behind Z1'Y.
void takeproducts(const Pass& pass, int k, const double* hot, double* S) {
  const double* const from = hot + pass.store.atZ1Y;
  const int p = pass.p, size = (1 + pass.nbeta) * p;
  for (int i = 0; i < size; ++i) S[i] = from[i];
  if (const double scale = pass.scale3[k]; scale != 1.0)
    for (int i = firstB * p; i < (firstB + pass.b) * p; ++i) S[i] *= scale;
}

// A column that Z1 explains but for rounding is left nothing.
void clearrounding(const double* S, int C, double* left) {
  constexpr double rounding = 1.0e-11;
  for (int i = 0; i < C; ++i) {
    if (left[i * C + i] > rounding * S[i * C + i]) continue;
    for (int j = 0; j < C; ++j) left[i * C + j] = left[j * C + i] = 0.0;
  }
}

// The numbers of W3, those of Z2 over their scale.
void takeweights(const Pass& pass, MarginalSums& sums) {
  sums.weights.reset(at(pass.mdm().nunits3), pass.design.owner3.size());
  for (int k = 0; k < pass.mdm().nunits3; ++k) {
    double* const weights = sums.weights.row(k);
    level3weights(pass, k, weights);
    for (std::size_t i = 0; i < sums.weights.width; ++i)
      if (pass.design.owner3[i] < pass.b) weights[i] /= pass.scale3[k];
  }
}

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

std::size_t marginalwork(int p, int b, int C) {
  constexpr std::size_t lanes = 4;
  const std::size_t pp = square(p), Cp = at(C * p), np = packedsize(p), CC = square(C);
  const std::size_t first = np + 2 * Cp + 3 * Cp + 2 * pp + 2 * pp + at(p) + 2 * pp + 2 * Cp + 3 * packedsize(C);
  const std::size_t unit = at(b * p) + 4 * pp + 2 * Cp;
  const std::size_t second =
      2 * np + np * (packedsize(C) + CC + at(b * C) + square(b)) + packedsize(static_cast<int>(np)) * (CC + 1) + unit;
  return lanes * std::max(first, second) + lanes;  // and what its alignment may pass over
}

std::size_t marginalkept(int p, int C, int units) {
  constexpr std::size_t lanes = 4;
  return (2 * square(p) + 2 * at(C * p)) * ((at(units) + lanes - 1) / lanes * lanes) + lanes;
}

const MarginalLoops& marginalloops() {
#if defined(__x86_64__)
  static const MarginalLoops& fastest =
      __builtin_cpu_supports("avx2") ? avx2::marginalloopset : baseline::marginalloopset;
  return fastest;
#else
  return baseline::marginalloopset;
#endif
}

Failure makemarginalsums(Pass& pass, MarginalSums& sums) {
  const int p = pass.p, C = 1 + pass.nbeta;
  sums.design = &pass.design;
  sums.p = p;
  sums.b = pass.b;
  sums.g = pass.g;
  sums.nbeta = pass.nbeta;
  sums.units2 = pass.mdm().nunits2;
  sums.records1 = pass.nunits1;
  sums.n2of = pass.n2of.copy();
  takeweights(pass, sums);
  const std::size_t bytes = at(sums.units2) * sums.recordsize() * sizeof(double);
  sums.units.open(sums.recordsize(), at(sums.units2),
                  {pass.analysis->store.inmemory || bytes <= pass.analysis->store.budget, pass.analysis->store.window,
                   &pass.observer()});
  sums.residual.reset(at(pass.mdm().nunits3), square(C));
  Array<double> SAA(square(p)), inverse(square(p)), whole(square(C));
  sweepunits(
      pass.n2of, [&](int k) { crossproducts(pass, k, sums.residual.row(k)); },
      [&](int k, std::size_t, const double* hot) {
        unpack(p, hot, SAA.data());
        pseudoinverse(SAA.data(), p, inverse);
        double* const record = sums.units.append();
        std::copy_n(hot, packedsize(p), record);
        double *const S = record + sums.atproducts(), *const beta = record + sums.atcoefficients();
        takeproducts(pass, k, hot, S);
        mulAB(beta, S, inverse.data(), C, p, p);
        subABt(sums.residual.row(k), S, beta, C, C, p);
      },
      [&](int k) {
        crossproducts(pass, k, whole.data());
        symmetrise(C, sums.residual.row(k));
        clearrounding(whole.data(), C, sums.residual.row(k));
      },
      reading(pass.store.hot));
  sums.units.finish();
  if (storefailure(pass.store)) return storefailure(pass.store);
  return sums.failure();
}

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
