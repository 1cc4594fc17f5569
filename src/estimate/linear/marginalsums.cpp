#include "estimate/linear/marginalsums.h"

#include <algorithm>
#include <cmath>

#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

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

}  // namespace

void pseudoinverse(const double* S, int p, double* X) {
  constexpr double nothing = 1.0e-10, ordinary = 1.0e-3;
  // As a rule nothing is left out, and the determinant at a unit diagonal says so: no eigenvalue is below it over p^p.
  const Inversion inversion = invertsymmetric(p, S, X);
  double diagonal = 1.0;
  for (int i = 0; i < p; ++i) diagonal *= S[i * p + i];
  if (inversion.result == 0 && !inversion.negative && inversion.determinant > ordinary * diagonal && diagonal > 0.0)
    return;
  Array<double> scaled(square(p)), values(at(p)), vectors(square(p)), scale(at(p));
  for (int i = 0; i < p; ++i) scale[i] = S[i * p + i] > 0.0 ? 1.0 / std::sqrt(S[i * p + i]) : 0.0;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j < p; ++j) scaled[i * p + j] = S[i * p + j] * scale[i] * scale[j];
  spectrum(at(p), scaled.data(), values.data(), vectors.data());
  std::fill_n(X, square(p), 0.0);
  for (int e = 0; e < p; ++e) {
    if (!(values[e] > nothing)) continue;
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < p; ++j)
        X[i * p + j] += scale[i] * vectors[i * p + e] / values[e] * vectors[j * p + e] * scale[j];
  }
}

void symmetrise(int n, double* m) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < i; ++j) m[i * n + j] = m[j * n + i] = 0.5 * (m[i * n + j] + m[j * n + i]);
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
        pseudoinverse(SAA.data(), p, inverse.data());
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

}  // namespace kdr
