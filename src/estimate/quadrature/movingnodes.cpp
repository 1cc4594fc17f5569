#include "estimate/quadrature/movingnodes.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "estimate/likelihood/unitthreads.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

// Moments of few nodes: how far the eigenvalues of their covariances, of z at a given w, may lie from the sweep's.
constexpr double leastratio = 0.05, largestratio = 20.0;

// H (packed s(s+1)/2) := C' M C with M packed of order p and C p by s, whose sizes the compiler knows where they are
// not 0.
template <std::size_t P, std::size_t S>
void symmetricform(std::size_t givenp, std::size_t givens, const double* M, const double* C, double* work, double* H) {
  const std::size_t p = P > 0 ? P : givenp, s = S > 0 ? S : givens;
  double own[P > 0 && S > 0 ? P * S : 1];
  double* through = P > 0 && S > 0 ? own : work;
  for (std::size_t i = 0; i < p * s; ++i) through[i] = 0.0;
  for (std::size_t i = 0, e = 0; i < p; ++i)
    for (std::size_t l = 0; l <= i; ++l, ++e) {
      for (std::size_t c = 0; c < s; ++c) through[i * s + c] += M[e] * C[l * s + c];
      if (l != i)
        for (std::size_t c = 0; c < s; ++c) through[l * s + c] += M[e] * C[i * s + c];
    }
  for (std::size_t a = 0, e = 0; a < s; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++e) {
      double sum = 0.0;
      for (std::size_t i = 0; i < p; ++i) sum += C[i * s + a] * through[i * s + b];
      H[e] = sum;
    }
}
using Form = void (*)(std::size_t, std::size_t, const double*, const double*, double*, double*);
// Two to four effects of up to three columns have code of their own.
Form formof(std::size_t p, std::size_t s) {
  static constexpr Form table[3][3] = {{symmetricform<1, 2>, symmetricform<1, 3>, symmetricform<1, 4>},
                                       {symmetricform<2, 2>, symmetricform<2, 3>, symmetricform<2, 4>},
                                       {symmetricform<3, 2>, symmetricform<3, 3>, symmetricform<3, 4>}};
  return p <= 3 && s >= 2 && s <= 4 ? table[p - 1][s - 2] : symmetricform<0, 0>;
}

// inverse := M^-1, factor := chol(M^-1), adding log|M|. work: 2 n squared.
bool invertinformation(std::size_t n, const double* M, double* inverse, double* factor, double& logdeterminant,
                       double* work) {
  if (n == 1) {
    if (!(M[0] > 0.0) || !std::isfinite(M[0])) return false;
    inverse[0] = 1.0 / M[0];
    factor[0] = std::sqrt(inverse[0]);
    logdeterminant += std::log(M[0]);
    return true;
  }
  double *L = work, *X = work + n * n;
  if (!choleskyfactor(n, M, L)) return false;
  for (std::size_t i = 0; i < n; ++i) logdeterminant += 2.0 * std::log(L[i * n + i]);
  invertlower(n, L, X);
  inversefromfactor(n, X, inverse);
  return choleskyfactor(n, inverse, factor);
}

// M := Q' M Q, n squared.
void turnmatrix(std::size_t n, const double* Q, double* M, double* work) {
  const int order = static_cast<int>(n);
  mulAB(work, M, Q, order, order, order);
  mulAtB(M, Q, work, order, order, order);
}

// Keeps the eigenvalues of L^-1 M L^-T within the guards. True when they were.
bool guardcovariance(std::size_t n, const double* L, double* M) {
  if (n == 0) return true;
  if (n == 1) {
    const double unit = L[0] * L[0], given = M[0];
    M[0] = std::clamp(std::isfinite(M[0]) ? M[0] : unit, leastratio * unit, largestratio * unit);
    return M[0] == given;
  }
  Array<double> X(n * n), E(n * n), work(n * n), values(n), Q(n * n);
  const int order = static_cast<int>(n);
  invertlower(n, L, X.data());
  mulAB(work.data(), X.data(), M, order, order, order);
  mulABt(E.data(), work.data(), X.data(), order, order, order);
  for (const double value : E)
    if (!std::isfinite(value)) {
      mulABt(M, L, L, order, order, order);
      return false;
    }
  spectrum(n, E.data(), values.data(), Q.data());
  if (values[0] >= leastratio && values[n - 1] <= largestratio) return true;
  mulAB(work.data(), L, Q.data(), order, order, order);
  std::fill_n(M, n * n, 0.0);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l < n; ++l)
      for (std::size_t c = 0; c < n; ++c)
        M[i * n + l] += work[i * n + c] * std::clamp(values[c], leastratio, largestratio) * work[l * n + c];
  return false;
}

// Buffers of one thread.
struct CarryWork {
  UnitFrames frames;
  Array<double> columns;
  Sweep from, to;
  Array<double> M, h, res, G2, G3, G23, C3, inverse3, P, K, S, a, b;
};

// The residual sums at `to`: h - M (coefficients there less those at `from`), the coefficients of x~ at the moments.
void carriedresiduals(const Frame& frame, const SphericalPoint& from, const SphericalPoint& to,
                      const UnitFrames& frames, std::size_t units, const double* M, const double* h, const double* z,
                      const double* w, CarryWork& work) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), g = at(frame.g),
                    packed = packedsize(frame.npi);
  fit(work.a, q + r + g);
  fit(work.b, npi);
  double *dz = work.a.data(), *dw = dz + q, *dg = dw + r;
  std::fill_n(dw, r, 0.0);
  for (std::size_t a = 0; a < r; ++a)
    for (std::size_t b = 0; b <= a; ++b) dw[a] += (to.B[a * r + b] - from.B[a * r + b]) * w[b];
  for (std::size_t c = 0; c < g; ++c) dg[c] = to.g[c] - from.g[c];
  for (std::size_t j = 0; j < units; ++j) {
    std::fill_n(dz, q, 0.0);
    for (std::size_t a = 0; a < q; ++a)
      for (std::size_t b = 0; b <= a; ++b) dz[a] += (to.A[a * q + b] - from.A[a * q + b]) * z[j * q + b];
    const double *Sx = frames.Sx.data() + j * npi * g, *Se = frames.Se.data() + j * npi * r;
    double* res = work.res.data() + j * npi;
    for (std::size_t c = 0; c < npi; ++c) {
      work.b[c] = dot(Sx + c * g, dg, g) + dot(Se + c * r, dw, r) + dot(frame.Sd.data() + c * q, dz, q);
      res[c] = h[j * npi + c];
    }
    const double* W = M + j * packed;
    for (std::size_t c = 0, e = 0; c < npi; ++c)
      for (std::size_t l = 0; l <= c; ++l, ++e) {
        res[c] -= W[e] * work.b[l];
        if (l != c) res[l] -= W[e] * work.b[c];
      }
  }
}

bool carryunit(const Frame& frame, const SphericalPoint& from, const SphericalPoint& to, bool still,
               const Nodes& moments, const RecordSums& sums, std::size_t k, CarryWork& work, Nodes& nodes) {
  const std::size_t q = at(frame.q), r = at(frame.r), npi = at(frame.npi), first = frame.units.first[k],
                    units = frame.units.first[k + 1] - first;
  const auto widened = [](const Array<float>& values, std::size_t place, std::size_t n, Array<double>& wide) {
    fit(wide, n);
    for (std::size_t i = 0; i < n; ++i) wide[i] = static_cast<double>(values[place + i]);
    return wide.data();
  };
  const std::size_t T = packedsize(frame.npi);
  const double *M = widened(sums.M, first * T, units * T, work.M),
               *h = widened(sums.h, first * npi, units * npi, work.h);
  const double *z = moments.z.data() + first * q, *w = moments.w.data() + k * r;
  makeunitframes(frame, k, work.frames);
  makecolumns(frame, from, work.frames, units, work.columns);
  const double* weights = frame.weightsof2(k);
  if (!sweepunit(frame, work.columns, units, weights, M, h, z, w, work.from)) return false;
  if (!still) {
    fit(work.res, units * npi);
    carriedresiduals(frame, from, to, work.frames, units, M, h, z, w, work);
    makecolumns(frame, to, work.frames, units, work.columns);
    if (!sweepunit(frame, work.columns, units, weights, M, work.res.data(), z, w, work.to)) return false;
  }
  const Sweep &s0 = work.from, &s1 = still ? work.from : work.to;
  const int oq = frame.q, orr = frame.r;
  for (Array<double>* array : {&work.G3, &work.C3}) fit(*array, r * r);
  for (Array<double>* array : {&work.G2, &work.P}) fit(*array, q * q);
  for (Array<double>* array : {&work.G23, &work.K, &work.S}) fit(*array, q * r);
  fit(work.a, (q + r) * (q + r));
  fit(work.b, (q + r) * (q + r));
  fit(work.inverse3, r * r);

  double* C3 = work.C3.data();
  std::copy_n(moments.C3.data() + k * r * r, r * r, C3);
  // The slope of z on w is that of the moments, unless they know nothing of w.
  const bool own = guardcovariance(r, s0.L3.data(), C3) && choleskyfactor(r, C3, work.a.data());
  if (own) {
    invertlower(r, work.a.data(), work.b.data());
    inversefromfactor(r, work.b.data(), work.inverse3.data());
  }
  double* wto = nodes.w.data() + k * r;
  std::copy_n(w, r, wto);
  if (!still) {
    for (std::size_t b = 0; b < r; ++b) wto[b] += s1.dw[b] - s0.dw[b];
    invertlower(r, s0.L3.data(), work.a.data());
    mulAB(work.G3.data(), s1.L3.data(), work.a.data(), orr, orr, orr);
    mulAB(work.a.data(), work.G3.data(), C3, orr, orr, orr);
    mulABt(nodes.C3.data() + k * r * r, work.a.data(), work.G3.data(), orr, orr, orr);
  } else {
    std::copy_n(C3, r * r, nodes.C3.data() + k * r * r);
  }
  for (std::size_t j = 0; j < units; ++j) {
    const std::size_t unit = first + j;
    double *P = work.P.data(), *K = work.K.data();
    std::copy_n(moments.P.data() + unit * q * q, q * q, P);
    std::copy_n(moments.K.data() + unit * q * r, q * r, K);
    // S = K C3^-1; P less S K', of z at a given w, within the guards; P and K made anew.
    double *S = work.S.data(), *R = work.b.data();
    if (own) {
      mulAB(S, K, work.inverse3.data(), oq, orr, orr);
    } else {
      std::copy_n(s0.slope.data() + j * q * r, q * r, S);
    }
    mulAB(K, S, C3, oq, orr, orr);
    std::copy_n(P, q * q, R);
    subABt(R, S, K, oq, oq, orr);
    if (std::any_of(S, S + q * r, [](double value) { return !std::isfinite(value); })) return false;
    guardcovariance(q, s0.L2.data() + j * q * q, R);
    std::copy_n(R, q * q, P);
    addABt(P, S, K, oq, oq, orr);
    double *zto = nodes.z.data() + unit * q, *Pto = nodes.P.data() + unit * q * q, *Kto = nodes.K.data() + unit * q * r;
    std::copy_n(z + j * q, q, zto);
    if (still) {
      std::copy_n(P, q * q, Pto);
      std::copy_n(K, q * r, Kto);
      continue;
    }
    for (std::size_t a = 0; a < q; ++a) zto[a] += s1.dz[j * q + a] - s0.dz[j * q + a];
    // G of (w, z): lower triangular in blocks, G3, G2 and G23 = slope1 G3 - G2 slope0.
    double *G2 = work.G2.data(), *G23 = work.G23.data(), *a = work.a.data(), *b = work.b.data();
    invertlower(q, s0.L2.data() + j * q * q, a);
    mulAB(G2, s1.L2.data() + j * q * q, a, oq, oq, oq);
    mulAB(G23, s1.slope.data() + j * q * r, work.G3.data(), oq, orr, orr);
    subAB(G23, G2, s0.slope.data() + j * q * r, oq, orr, oq);
    // T = G23 C3 + G2 K (q by r);  K := T G3'.
    mulAB(a, G23, C3, oq, orr, orr);
    addAB(a, G2, K, oq, orr, oq);
    mulABt(Kto, a, work.G3.data(), oq, orr, orr);
    // P := T G23' + (G23 K' + G2 P) G2'.
    mulABt(b, G23, K, oq, oq, orr);
    addAB(b, G2, P, oq, oq, oq);
    mulABt(Pto, a, G23, oq, oq, orr);
    addABt(Pto, b, G2, oq, oq, oq);
    for (std::size_t i = 0; i < q; ++i)
      for (std::size_t l = 0; l < i; ++l) Pto[i * q + l] = Pto[l * q + i] = 0.5 * (Pto[i * q + l] + Pto[l * q + i]);
  }
  return true;
}

}  // namespace

Nodes Nodes::copy() const { return {w.copy(), C3.copy(), z.copy(), P.copy(), K.copy()}; }

Nodes makenodes(const Frame& frame) {
  const std::size_t J2 = frame.units2(), J3 = frame.units3();
  Nodes nodes;
  nodes.w.reset(J3 * at(frame.r));
  nodes.C3.reset(J3 * square(frame.r));
  nodes.z.reset(J2 * at(frame.q));
  nodes.P.reset(J2 * square(frame.q));
  nodes.K.reset(J2 * at(frame.q) * at(frame.r));
  return nodes;
}

RecordSums makesums(const Frame& frame) {
  return {Array<float>(frame.units2() * packedsize(frame.npi)), Array<float>(frame.units2() * at(frame.npi))};
}

void turnnodes(const Frame& frame, const Turn& turn, Nodes& nodes) {
  const std::size_t q = at(frame.q), r = at(frame.r);
  Array<double> work(std::max(q, r) * std::max(q, r));
  const auto turnvector = [&](std::size_t n, const double* Q, double* v) {
    std::copy_n(v, n, work.data());
    for (std::size_t a = 0; a < n; ++a) {
      v[a] = 0.0;
      for (std::size_t b = 0; b < n; ++b) v[a] += Q[b * n + a] * work[b];
    }
  };
  for (std::size_t k = 0; k < frame.units3(); ++k) {
    turnvector(r, turn.Q3.data(), nodes.w.data() + k * r);
    turnmatrix(r, turn.Q3.data(), nodes.C3.data() + k * r * r, work.data());
  }
  for (std::size_t j = 0; j < frame.units2(); ++j) {
    turnvector(q, turn.Q2.data(), nodes.z.data() + j * q);
    turnmatrix(q, turn.Q2.data(), nodes.P.data() + j * q * q, work.data());
    double* K = nodes.K.data() + j * q * r;  // Q2' K Q3
    mulAB(work.data(), K, turn.Q3.data(), frame.q, frame.r, frame.r);
    mulAtB(K, turn.Q2.data(), work.data(), frame.q, frame.r, frame.q);
  }
}

void makecolumns(const Frame& frame, const SphericalPoint& point, const UnitFrames& frames, std::size_t units,
                 Array<double>& columns) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), s = q + r;
  fit(columns, units * npi * s);
  const auto multiply = [](std::size_t n, const double* row, const double* A, double* to) {
    for (std::size_t b = 0; b < n; ++b) {
      to[b] = 0.0;
      for (std::size_t a = b; a < n; ++a) to[b] += row[a] * A[a * n + b];
    }
  };
  for (std::size_t j = 0; j < units; ++j)
    for (std::size_t c = 0; c < npi; ++c) {
      double* to = columns.data() + (j * npi + c) * s;
      multiply(q, frame.Sd.data() + c * q, point.A.data(), to);
      multiply(r, frames.Se.data() + (j * npi + c) * r, point.B.data(), to + q);
    }
}

bool sweepunit(const Frame& frame, const Array<double>& columns, std::size_t units, const double* weights,
               const double* M, const double* res, const double* z, const double* w, Sweep& sweep) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), s = q + r, packed = packedsize(frame.npi);
  for (Array<double>* array : {&sweep.C2, &sweep.L2, &sweep.P}) fit(*array, units * q * q);
  for (Array<double>* array : {&sweep.slope, &sweep.K}) fit(*array, units * q * r);
  fit(sweep.dz, units * q);
  for (Array<double>* array : {&sweep.C3, &sweep.L3}) fit(*array, r * r);
  fit(sweep.dw, r);
  const std::size_t n = std::max(q, r);
  fit(sweep.work, npi * s + s * (s + 1) / 2 + 2 * n * n + 2 * n * n);
  fit(sweep.right, units * q + r);
  double* through = sweep.work.data();
  double* form = through + npi * s;
  double* H = form + s * (s + 1) / 2;
  double* H3 = H + n * n;
  double* scratch = H3 + n * n;
  double *g2 = sweep.right.data(), *g3 = g2 + units * q;
  const Form makeform = formof(npi, s);
  sweep.logdeterminant = 0.0;
  std::fill_n(H3, r * r, 0.0);
  for (std::size_t b = 0; b < r; ++b) {
    H3[b * r + b] = 1.0;
    g3[b] = -w[b];
  }
  for (std::size_t j = 0; j < units; ++j) {
    const double *C = columns.data() + j * npi * s, *own = res + j * npi;
    makeform(npi, s, M + j * packed, C, through, form);
    for (std::size_t a = 0, e = 0; a < q; ++a)
      for (std::size_t b = 0; b <= a; ++b, ++e) H[a * q + b] = H[b * q + a] = form[e] + (a == b ? 1.0 : 0.0);
    double *C2 = sweep.C2.data() + j * q * q, *slope = sweep.slope.data() + j * q * r;
    const double weight = weights == nullptr ? 1.0 : weights[j];
    double before = sweep.logdeterminant;
    if (!invertinformation(q, H, C2, sweep.L2.data() + j * q * q, sweep.logdeterminant, scratch)) return false;
    if (weight != 1.0) sweep.logdeterminant = before + weight * (sweep.logdeterminant - before);
    // X23 stands in the first q places of the rows of level 3.
    for (std::size_t a = 0; a < q; ++a) {
      for (std::size_t b = 0; b < r; ++b) {
        const double* X23 = form + (q + b) * (q + b + 1) / 2;
        double sum = 0.0;
        for (std::size_t c = 0; c < q; ++c) sum -= C2[a * q + c] * X23[c];
        slope[a * r + b] = sum;
      }
      double sum = -z[j * q + a];
      for (std::size_t c = 0; c < npi; ++c) sum += C[c * s + a] * own[c];
      g2[j * q + a] = sum;
    }
    for (std::size_t b = 0; b < r; ++b) {
      const double* row = form + (q + b) * (q + b + 1) / 2;
      for (std::size_t c = 0; c < r; ++c) {
        double sum = c <= b ? row[q + c] : form[(q + c) * (q + c + 1) / 2 + q + b];
        for (std::size_t a = 0; a < q; ++a) sum += row[a] * slope[a * r + c];
        H3[b * r + c] += weight * sum;
      }
      double sum = 0.0;
      for (std::size_t c = 0; c < npi; ++c) sum += C[c * s + q + b] * own[c];
      for (std::size_t a = 0; a < q; ++a) sum += slope[a * r + b] * g2[j * q + a];
      g3[b] += weight * sum;
    }
  }
  for (std::size_t a = 0; a < r; ++a)
    for (std::size_t b = 0; b < a; ++b) H3[a * r + b] = H3[b * r + a] = 0.5 * (H3[a * r + b] + H3[b * r + a]);
  if (!invertinformation(r, H3, sweep.C3.data(), sweep.L3.data(), sweep.logdeterminant, scratch)) return false;
  const double* C3 = sweep.C3.data();
  double* dw = sweep.dw.data();
  for (std::size_t a = 0; a < r; ++a) {
    dw[a] = 0.0;
    for (std::size_t b = 0; b < r; ++b) dw[a] += C3[a * r + b] * g3[b];
  }
  for (std::size_t j = 0; j < units; ++j) {
    const double *C2 = sweep.C2.data() + j * q * q, *slope = sweep.slope.data() + j * q * r;
    double *dz = sweep.dz.data() + j * q, *K = sweep.K.data() + j * q * r, *P = sweep.P.data() + j * q * q;
    for (std::size_t a = 0; a < q; ++a) {
      double sum = 0.0;
      for (std::size_t b = 0; b < q; ++b) sum += C2[a * q + b] * g2[j * q + b];
      for (std::size_t b = 0; b < r; ++b) sum += slope[a * r + b] * dw[b];
      dz[a] = sum;
      for (std::size_t b = 0; b < r; ++b) {
        double cell = 0.0;
        for (std::size_t c = 0; c < r; ++c) cell += slope[a * r + c] * C3[c * r + b];
        K[a * r + b] = cell;
      }
      for (std::size_t b = 0; b < q; ++b) {
        double cell = C2[a * q + b];
        for (std::size_t c = 0; c < r; ++c) cell += K[a * r + c] * slope[b * r + c];
        P[a * q + b] = cell;
      }
    }
  }
  return true;
}

bool carrynodes(const Frame& frame, const Array<double>& from, const Nodes& moments, const RecordSums& sums,
                const Array<double>& to, int threads, Nodes& nodes) {
  const SphericalPoint pointfrom = sphericalpoint(frame, from), pointto = sphericalpoint(frame, to);
  const bool still = std::equal(from.begin(), from.end(), to.begin());
  std::vector<CarryWork> work(at(std::max(threads, 1)));
  std::atomic<bool> fine{true};
  overplaces(frame.units3(), frame.records > 20000.0 ? threads : 1, [&](std::size_t k, int worker) {
    if (!carryunit(frame, pointfrom, pointto, still, moments, sums, k, work[at(worker)], nodes)) fine = false;
  });
  return fine;
}

}  // namespace kdr
