#include "estimate/inference/smallsample.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// tr(A B), n squared each.
double traceof(const double* A, const double* B, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) sum += A[i * n + j] * B[j * n + i];
  return sum;
}

// x' M y, n squared.
double form(const double* x, const double* M, const double* y, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += x[i] * dot(M + at(i * n), y, at(n));
  return sum;
}

// The contrasts at unit variance, each with its length taken out, and the spectrum of their correlations: L is
// D R with R Phi R' = U diag(w) U'.
struct Contrasts {
  Array<double> R;     // q by g
  Array<double> w, U;  // [q], q squared
  bool independent = false;
};

Contrasts contrastsof(const VarianceUncertainty& known, const double* L, int q) {
  constexpr double dependent = 1.0e-12;
  const int g = known.g;
  Contrasts made{Array<double>(at(q * g)), Array<double>(at(q)), Array<double>(square(q))};
  Array<double> half(at(q * g)), C(square(q));
  for (int i = 0; i < q; ++i) {
    const double* const l = L + at(i * g);
    const double variance = form(l, known.Phi.data(), l, g);
    if (!(variance > 0.0)) return made;
    for (int j = 0; j < g; ++j) made.R[i * g + j] = l[j] / std::sqrt(variance);
  }
  mulAB(half.data(), made.R.data(), known.Phi.data(), q, g, g);
  mulABt(C.data(), half.data(), made.R.data(), q, q, g);
  spectrum(at(q), C.data(), made.w.data(), made.U.data());
  made.independent = made.w[0] > dependent;
  return made;
}

}  // namespace

Array<double> adjustedcovariance(const VarianceUncertainty& known) {
  const int g = known.g, NT = known.NT;
  const double* Phi = known.Phi.data();
  Array<double> inner(square(g)), PhiP(square(g)), half(square(g)), adjusted = known.Phi.copy();
  for (int j = 0; j < NT; ++j) {
    mulAB(PhiP.data(), Phi, known.P.row(j), g, g, g);
    for (int i = 0; i < NT; ++i) {
      const double W = known.W[i * NT + j];
      if (W == 0.0) continue;
      mulAB(half.data(), known.P.row(i), PhiP.data(), g, g, g);
      const double* Q = known.Q.row(static_cast<int>(i >= j ? packedsize(i) + at(j) : packedsize(j) + at(i)));
      for (std::size_t e = 0; e < square(g); ++e) inner[e] += W * (Q[e] - half[e]);
    }
  }
  // Q_ij and its transpose stand for each other: the sum over both orders is symmetric.
  for (int i = 0; i < g; ++i)
    for (int j = 0; j < i; ++j) inner[i * g + j] = inner[j * g + i] = 0.5 * (inner[i * g + j] + inner[j * g + i]);
  mulAB(half.data(), Phi, inner.data(), g, g, g);
  mulAB(inner.data(), half.data(), Phi, g, g, g);
  for (int i = 0; i < g; ++i)
    for (int j = 0; j < g; ++j) adjusted[i * g + j] += inner[i * g + j] + inner[j * g + i];
  return adjusted;
}

double satterthwaite(const VarianceUncertainty& known, const double* l) {
  const int g = known.g, NT = known.NT;
  Array<double> h(at(g)), d(at(NT));
  mulAB(h.data(), known.Phi.data(), l, g, 1, g);
  const double v = dot(l, h.data(), at(g));
  for (int i = 0; i < NT; ++i) d[i] = form(h.data(), known.P.row(i), h.data(), g);
  const double spread = form(d.data(), known.W.data(), d.data(), NT);
  return spread > 0.0 ? 2.0 * v * v / spread : std::numeric_limits<double>::infinity();
}

ScaledTest faicornelius(const VarianceUncertainty& known, const double* L, int q) {
  if (q == 1) return {true, 1.0, satterthwaite(known, L)};
  const int g = known.g;
  if (!contrastsof(known, L, q).independent) return {};
  // Rows of U'L have no covariances, with L Phi L' = U diag(w) U'.
  Array<double> half(at(q * g)), C(square(q)), w(at(q)), U(square(q)), rows(at(q * g));
  mulAB(half.data(), L, known.Phi.data(), q, g, g);
  mulABt(C.data(), half.data(), L, q, q, g);
  spectrum(at(q), C.data(), w.data(), U.data());
  mulAtB(rows.data(), U.data(), L, q, g, q);
  double E = 0.0, least = std::numeric_limits<double>::infinity(), most = 0.0;
  for (int a = 0; a < q; ++a) {
    const double nu = satterthwaite(known, rows.data() + at(a * g));
    least = std::min(least, nu);
    most = std::max(most, nu);
    E += std::isinf(nu) ? 1.0 : nu / (nu - 2.0);
  }
  constexpr double alike = 1.0e-8;
  if (std::isinf(least) || most - least < alike * least) return {true, 1.0, least};
  if (least <= 2.0) return {true, 1.0, 2.0};
  return {true, 1.0, 2.0 * E / (E - q)};
}

ScaledTest kenwardroger(const VarianceUncertainty& known, const double* L, int q) {
  const int g = known.g, NT = known.NT;
  const Contrasts contrasts = contrastsof(known, L, q);
  if (!contrasts.independent) return {};
  // With B = Phi R'U diag(w)^-1/2 (g by q), Theta = L'(L Phi L')^-1 L gives Phi Theta Phi = B B', so that
  // tr(Theta Phi P_i Phi) = tr(N_i) and tr(Theta Phi P_i Phi Theta Phi P_j Phi) = tr(N_i N_j) with N_i = B'P_i B.
  Array<double> half(at(g * q)), B(at(g * q));
  mulABt(half.data(), known.Phi.data(), contrasts.R.data(), g, q, g);
  mulAB(B.data(), half.data(), contrasts.U.data(), g, q, q);
  for (int i = 0; i < g; ++i)
    for (int a = 0; a < q; ++a) B[i * q + a] /= std::sqrt(contrasts.w[a]);
  UnitTable<double> N;
  N.reset(at(NT), square(q));
  Array<double> trace(at(NT));
  for (int i = 0; i < NT; ++i) {
    mulAB(half.data(), known.P.row(i), B.data(), g, q, g);
    mulAtB(N.row(i), B.data(), half.data(), q, q, g);
    for (int a = 0; a < q; ++a) trace[i] += N.row(i)[a * q + a];
  }
  double A1 = 0.0, A2 = 0.0;
  for (int i = 0; i < NT; ++i)
    for (int j = 0; j < NT; ++j) {
      const double W = known.W[i * NT + j];
      A1 += W * trace[i] * trace[j];
      A2 += W * traceof(N.row(i), N.row(j), q);
    }
  if (!(A2 > 0.0)) return {true, 1.0, std::numeric_limits<double>::infinity()};
  // The general form is 0 / 0 in the limit that the first case is.
  constexpr double limit = 1.0e-10;
  if (q == 1 || std::fabs(A1 - q * A2) <= limit * A1) return {true, 1.0, 2.0 * q / A2};
  const double B0 = (A1 + 6.0 * A2) / (2.0 * q), w = ((q + 1) * A1 - (q + 4) * A2) / ((q + 2) * A2);
  const double e = 3.0 * q + 2.0 * (1.0 - w), c1 = w / e, c2 = (q - w) / e, c3 = (q + 2 - w) / e;
  if (!(1.0 - c2 * B0 > 0.0) || !(1.0 - c3 * B0 > 0.0)) return {};
  const double ratio = (1.0 - A2 / q) / (1.0 - c2 * B0);
  const double rho = ratio * ratio * (1.0 + c1 * B0) / (1.0 - c3 * B0) / q;
  const double df = 4.0 + (q + 2) / (q * rho - 1.0);
  if (!(df > 2.0)) return {};
  return {true, df * (1.0 - A2 / q) / (df - 2.0), df};
}

}  // namespace kdr
