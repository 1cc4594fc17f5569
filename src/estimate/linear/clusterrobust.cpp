#include "estimate/linear/clusterrobust.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// f(d) = ((1 - d)^-1/2 - 1) / d, without the loss of digits near 0; -1 at full leverage (Moore-Penrose).
constexpr double fullleverage = 1.0 - 1.0e-10;
double adjustment(double d) {
  if (d > fullleverage) return -1.0;
  const double root = std::sqrt(1.0 - d);
  return 1.0 / (root * (1.0 + root));
}

// Fc lower triangular with Fc Fc' = Phi, by way of a unit diagonal.
Array<double> factorof(const Array<double>& Phi, int g) {
  Array<double> scaled(square(g)), F(square(g));
  const auto scale = [&](int i) { return std::sqrt(Phi[i * (g + 1)]); };
  for (int i = 0; i < g; ++i)
    for (int j = 0; j < g; ++j) scaled[i * g + j] = Phi[i * g + j] / (scale(i) * scale(j));
  static_cast<void>(choleskyfactor(at(g), scaled.data(), F.data()));  // the inverse of a definite matrix
  for (int i = 0; i < g; ++i)
    for (int j = 0; j <= i; ++j) F[i * g + j] *= scale(i);
  return F;
}

// h_k = (1 + T_k I_k) Phi l and z_k = I_k h_k of each unit.
struct Influence {
  UnitTable<double> h, z;
};

Influence influenceof(const ClusterRobust& known, const double* l) {
  const int g = known.g, units = static_cast<int>(known.I.cells.size() / known.I.width);
  Influence made;
  made.h.reset(at(units), at(g));
  made.z.reset(at(units), at(g));
  Array<double> Phil(at(g)), half(at(g));
  mulAB(Phil.data(), known.Phi.data(), l, g, 1, g);
  for (int k = 0; k < units; ++k) {
    mulAB(half.data(), known.I.row(k), Phil.data(), g, 1, g);
    std::copy_n(Phil.data(), g, made.h.row(k));
    addAB(made.h.row(k), known.T.row(k), half.data(), g, 1, g);
    mulAB(made.z.row(k), known.I.row(k), made.h.row(k), g, 1, g);
  }
  return made;
}

// sum_k x_k y_k', g squared.
Array<double> outersum(const UnitTable<double>& x, const UnitTable<double>& y, int g) {
  Array<double> sum(square(g));
  mulAtB(sum.data(), x.cells.data(), y.cells.data(), g, g, static_cast<int>(x.cells.size()) / g);
  return sum;
}

double traceof(const Array<double>& A, const Array<double>& B, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) sum += A[i * n + j] * B[j * n + i];
  return sum;
}

}  // namespace

ClusterRobust clusterrobust(Pass& pass, MarginalSums& sums, const Estimates& est, const MarginalValue& value) {
  const int g = pass.g, units = pass.mdm().nunits3;
  ClusterRobust made{g, value.covariance.copy(), {}, {}, {}, {}};
  made.I.reset(at(units), square(g));
  made.T.reset(at(units), square(g));
  const Array<double> F = factorof(made.Phi, g);
  Array<double> half(square(g)), whitened(square(g)), d(at(g)), U(square(g)), FU(square(g)), meat(square(g));
  Array<double> Ts(at(g)), adjusted(at(g));
  eachlevel3form(sums, est, value.gamma, [&](int k, const LevelForm& form) {
    std::copy(form.xx.begin(), form.xx.end(), made.I.row(k));
    mulAtB(half.data(), F.data(), form.xx.data(), g, g, g);
    mulAB(whitened.data(), half.data(), F.data(), g, g, g);
    for (int i = 0; i < g; ++i)
      for (int j = 0; j < i; ++j)
        whitened[i * g + j] = whitened[j * g + i] = 0.5 * (whitened[i * g + j] + whitened[j * g + i]);
    spectrum(at(g), whitened.data(), d.data(), U.data());
    mulAB(FU.data(), F.data(), U.data(), g, g, g);
    double* const T = made.T.row(k);
    for (int e = 0; e < g; ++e) {
      const double f = adjustment(d[e]);
      for (int i = 0; i < g; ++i)
        for (int j = 0; j < g; ++j) T[i * g + j] += FU[i * g + e] * f * FU[j * g + e];
      if (d[e] <= fullleverage) continue;
      Array<double>& direction = made.whole.emplace_back(at(g));
      for (int i = 0; i < g; ++i) direction[i] = FU[i * g + e];
    }
    // s* = s + I T s
    mulAB(Ts.data(), T, form.xr.data(), g, 1, g);
    std::copy(form.xr.begin(), form.xr.end(), adjusted.data());
    addAB(adjusted.data(), form.xx.data(), Ts.data(), g, 1, g);
    addABt(meat.data(), adjusted.data(), adjusted.data(), g, g, 1);
  });
  made.covariance.reset(square(g));
  mulAB(half.data(), made.Phi.data(), meat.data(), g, g, g);
  mulAB(made.covariance.data(), half.data(), made.Phi.data(), g, g, g);
  return made;
}

bool restsonone(const ClusterRobust& known, const double* l) {
  constexpr double part = 1.0e-10;  // of the variance of the contrast
  const int g = known.g;
  Array<double> Phil(at(g));
  mulAB(Phil.data(), known.Phi.data(), l, g, 1, g);
  const double variance = dot(l, Phil.data(), at(g));
  return std::ranges::any_of(known.whole, [&](const Array<double>& direction) {
    const double load = dot(l, direction.data(), at(g));
    return load * load > part * variance;
  });
}

double clusterdegrees(const ClusterRobust& known, const double* l) {
  const int g = known.g;
  const Influence influence = influenceof(known, l);
  const int units = static_cast<int>(known.I.cells.size() / known.I.width);
  Array<double> Phiz(at(g)), PhiZ(square(g));
  double first = 0.0, second = 0.0;
  for (int k = 0; k < units; ++k) {
    const double* const z = influence.z.row(k);
    mulAB(Phiz.data(), known.Phi.data(), z, g, 1, g);
    const double a = dot(influence.h.row(k), z, at(g)), b = dot(z, Phiz.data(), at(g));
    first += a - b;
    second += a * a - 2.0 * a * b;
  }
  mulAB(PhiZ.data(), known.Phi.data(), outersum(influence.z, influence.z, g).data(), g, g, g);
  second += traceof(PhiZ, PhiZ, g);
  return second > 0.0 ? first * first / second : std::numeric_limits<double>::infinity();
}

ScaledTest clustertest(const ClusterRobust& known, const double* L, int q) {
  const int g = known.g, units = static_cast<int>(known.I.cells.size() / known.I.width);
  for (int i = 0; i < q; ++i)
    if (restsonone(known, L + at(i * g))) return {};
  if (q == 1) return {true, 1.0, clusterdegrees(known, L)};
  // G = (L Phi L')^-1/2 L at unit variances: another root turns the rows of G, and Tot is that of all turns.
  Array<double> half(at(q * g)), C(square(q)), w(at(q)), U(square(q)), R(at(q * g)), G(at(q * g));
  for (int i = 0; i < q; ++i) {
    mulAB(half.data(), L + at(i * g), known.Phi.data(), 1, g, g);
    const double variance = dot(half.data(), L + at(i * g), at(g));
    if (!(variance > 0.0)) return {};
    for (int j = 0; j < g; ++j) R[i * g + j] = L[i * g + j] / std::sqrt(variance);
  }
  mulAB(half.data(), R.data(), known.Phi.data(), q, g, g);
  mulABt(C.data(), half.data(), R.data(), q, q, g);
  spectrum(at(q), C.data(), w.data(), U.data());
  if (!(w[0] > 1.0e-12)) return {};
  mulAtB(G.data(), U.data(), R.data(), q, g, q);
  for (int i = 0; i < q; ++i)
    for (int j = 0; j < g; ++j) G[i * g + j] /= std::sqrt(w[i]);
  std::vector<Influence> influences;
  for (int s = 0; s < q; ++s) influences.push_back(influenceof(known, G.data() + at(s * g)));
  double total = 0.0;
  Array<double> D(square(q)), P(square(q)), Phiz(at(g)), first(square(g)), second(square(g));
  for (int k = 0; k < units; ++k) {
    for (int t = 0; t < q; ++t) {
      const double* const z = influences[at(t)].z.row(k);
      mulAB(Phiz.data(), known.Phi.data(), z, g, 1, g);
      for (int s = 0; s < q; ++s) {
        D[s * q + t] = dot(influences[at(s)].h.row(k), z, at(g));
        P[s * q + t] = dot(influences[at(s)].z.row(k), Phiz.data(), at(g));
      }
    }
    for (int s = 0; s < q; ++s)
      for (int t = 0; t < q; ++t) {
        const double Dst = D[s * q + t], Dss = D[s * q + s], Dtt = D[t * q + t];
        total += Dst * Dst - 2.0 * Dst * P[s * q + t] + Dss * Dtt - Dss * P[t * q + t] - P[s * q + s] * Dtt;
      }
  }
  for (int s = 0; s < q; ++s)
    for (int t = 0; t < q; ++t) {
      mulAB(first.data(), known.Phi.data(), outersum(influences[at(s)].z, influences[at(t)].z, g).data(), g, g, g);
      mulAB(second.data(), known.Phi.data(), outersum(influences[at(t)].z, influences[at(s)].z, g).data(), g, g, g);
      total += traceof(second, first, g) + traceof(first, first, g);
    }
  const double eta = q * (q + 1) / total, df = eta - q + 1;
  if (!(df > 0.0)) return {};
  return {true, df / eta, df};
}

}  // namespace kdr
