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

// The sweeps of a level-3 unit at both points, from the sums of its records at `from`. At the same point the second is
// the first.
bool sweepboth(const Frame& frame, const SphericalPoint& from, const SphericalPoint& to, bool still,
               const RecordSums& sums, std::size_t k, const double* z, const double* w, CarryWork& work) {
  const std::size_t npi = at(frame.npi), T = packedsize(frame.npi), first = frame.units.first[k],
                    units = frame.units.first[k + 1] - first;
  const auto widened = [](const Array<float>& values, std::size_t place, std::size_t n, Array<double>& wide) {
    fit(wide, n);
    for (std::size_t i = 0; i < n; ++i) wide[i] = static_cast<double>(values[place + i]);
    return wide.data();
  };
  const double *M = widened(sums.M, first * T, units * T, work.M),
               *h = widened(sums.h, first * npi, units * npi, work.h);
  const double* weights = frame.weightsof2(k);
  makeunitframes(frame, k, work.frames);
  makecolumns(frame, from, work.frames, units, work.columns);
  if (!sweepunit(frame, work.columns, units, weights, M, h, z, w, work.from)) return false;
  if (still) return true;
  fit(work.res, units * npi);
  carriedresiduals(frame, from, to, work.frames, units, M, h, z, w, work);
  makecolumns(frame, to, work.frames, units, work.columns);
  return sweepunit(frame, work.columns, units, weights, M, work.res.data(), z, w, work.to);
}

// C3 of the moments within the guards, and its inverse for the slope of z on w. False, with no inverse, when the guards
// held: the moments then know nothing of w.
bool guardlevel3(std::size_t r, const double* moments, CarryWork& work) {
  std::copy_n(moments, r * r, work.C3.data());
  if (!guardcovariance(r, work.from.L3.data(), work.C3.data()) || !choleskyfactor(r, work.C3.data(), work.a.data()))
    return false;
  invertlower(r, work.a.data(), work.b.data());
  inversefromfactor(r, work.b.data(), work.inverse3.data());
  return true;
}

// P and K of unit j of a level-3 unit from those of the moments, whose variance of z at a given w is held to the
// guards:
//   S = K C3^-1, or the sweep's slope;  R = P - S C3 S';  K = S C3,  P = R + S C3 S'
bool guardlevel2(std::size_t q, std::size_t r, std::size_t j, bool ownslope, const double* P0, const double* K0,
                 CarryWork& work) {
  const int oq = static_cast<int>(q), orr = static_cast<int>(r);
  double *P = work.P.data(), *K = work.K.data(), *S = work.S.data(), *R = work.b.data();
  if (ownslope) {
    mulAB(S, K0, work.inverse3.data(), oq, orr, orr);
  } else {
    std::copy_n(work.from.slope.data() + j * q * r, q * r, S);
  }
  mulAB(K, S, work.C3.data(), oq, orr, orr);
  std::copy_n(P0, q * q, R);
  subABt(R, S, K, oq, oq, orr);
  if (std::any_of(S, S + q * r, [](double value) { return !std::isfinite(value); })) return false;
  guardcovariance(q, work.from.L2.data() + j * q * q, R);
  std::copy_n(R, q * q, P);
  addABt(P, S, K, oq, oq, orr);
  return true;
}

// Level 3 goes along: w += dw1 - dw0; C3 := G3 C3 G3' with G3 = L3_1 L3_0^-1.
void carrylevel3(std::size_t r, CarryWork& work, double* w, double* C3) {
  const Sweep &s0 = work.from, &s1 = work.to;
  const int orr = static_cast<int>(r);
  for (std::size_t b = 0; b < r; ++b) w[b] += s1.dw[b] - s0.dw[b];
  invertlower(r, s0.L3.data(), work.a.data());
  mulAB(work.G3.data(), s1.L3.data(), work.a.data(), orr, orr, orr);
  mulAB(work.a.data(), work.G3.data(), work.C3.data(), orr, orr, orr);
  mulABt(C3, work.a.data(), work.G3.data(), orr, orr, orr);
}

// Unit j of level 2 goes along: z += dz1 - dz0, and Cov(w, z) := G Cov(w, z) G', where G is lower triangular in blocks,
//   G3,  G2 = L2_1 L2_0^-1,  G23 = slope1 G3 - G2 slope0.
void carrylevel2(std::size_t q, std::size_t r, std::size_t j, CarryWork& work, double* z, double* P, double* K) {
  const Sweep &s0 = work.from, &s1 = work.to;
  const int oq = static_cast<int>(q), orr = static_cast<int>(r);
  for (std::size_t a = 0; a < q; ++a) z[a] += s1.dz[j * q + a] - s0.dz[j * q + a];
  double *G2 = work.G2.data(), *G23 = work.G23.data(), *a = work.a.data(), *b = work.b.data();
  invertlower(q, s0.L2.data() + j * q * q, a);
  mulAB(G2, s1.L2.data() + j * q * q, a, oq, oq, oq);
  mulAB(G23, s1.slope.data() + j * q * r, work.G3.data(), oq, orr, orr);
  subAB(G23, G2, s0.slope.data() + j * q * r, oq, orr, oq);
  // T = G23 C3 + G2 K (q by r);  K := T G3'.
  mulAB(a, G23, work.C3.data(), oq, orr, orr);
  addAB(a, G2, work.K.data(), oq, orr, oq);
  mulABt(K, a, work.G3.data(), oq, orr, orr);
  // P := T G23' + (G23 K' + G2 P) G2'.
  mulABt(b, G23, work.K.data(), oq, oq, orr);
  addAB(b, G2, work.P.data(), oq, oq, oq);
  mulABt(P, a, G23, oq, oq, orr);
  addABt(P, b, G2, oq, oq, oq);
  for (std::size_t i = 0; i < q; ++i)
    for (std::size_t l = 0; l < i; ++l) P[i * q + l] = P[l * q + i] = 0.5 * (P[i * q + l] + P[l * q + i]);
}

bool carryunit(const Frame& frame, const SphericalPoint& from, const SphericalPoint& to, bool still,
               const Nodes& moments, const RecordSums& sums, std::size_t k, CarryWork& work, Nodes& nodes) {
  const std::size_t q = at(frame.q), r = at(frame.r), first = frame.units.first[k], behind = frame.units.first[k + 1];
  const double *z = moments.z.data() + first * q, *w = moments.w.data() + k * r;
  if (!sweepboth(frame, from, to, still, sums, k, z, w, work)) return false;
  for (Array<double>* array : {&work.G3, &work.C3, &work.inverse3}) fit(*array, r * r);
  for (Array<double>* array : {&work.G2, &work.P}) fit(*array, q * q);
  for (Array<double>* array : {&work.G23, &work.K, &work.S}) fit(*array, q * r);
  for (Array<double>* array : {&work.a, &work.b}) fit(*array, (q + r) * (q + r));

  const bool ownslope = guardlevel3(r, moments.C3.data() + k * r * r, work);
  double *wto = nodes.w.data() + k * r, *C3to = nodes.C3.data() + k * r * r;
  std::copy_n(w, r, wto);
  if (still) {
    std::copy_n(work.C3.data(), r * r, C3to);
  } else {
    carrylevel3(r, work, wto, C3to);
  }
  for (std::size_t unit = first; unit < behind; ++unit) {
    if (!guardlevel2(q, r, unit - first, ownslope, moments.P.data() + unit * q * q, moments.K.data() + unit * q * r,
                     work))
      return false;
    double *zto = nodes.z.data() + unit * q, *Pto = nodes.P.data() + unit * q * q, *Kto = nodes.K.data() + unit * q * r;
    std::copy_n(moments.z.data() + unit * q, q, zto);
    if (still) {
      std::copy_n(work.P.data(), q * q, Pto);
      std::copy_n(work.K.data(), q * r, Kto);
    } else {
      carrylevel2(q, r, unit - first, work, zto, Pto, Kto);
    }
  }
  return true;
}

// Buffers of a sweep over units of level 2.
struct SweepRoom {
  std::size_t npi, q, r;
  double *through, *form, *H, *scratch;  // npi by s, packed s(s+1)/2, q squared, 2 max(q, r) squared
  double *H3, *g3;                       // r squared, [r]: sums of the units
};

// H2, and from it C2 and L2; slope = -C2 X23; g2.
bool eliminateunit(const SweepRoom& room, const double* C, const double* res, const double* z, double weight,
                   double* C2, double* L2, double* slope, double* g2, double& logdeterminant) {
  const std::size_t npi = room.npi, q = room.q, r = room.r, s = q + r;
  for (std::size_t a = 0, e = 0; a < q; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++e)
      room.H[a * q + b] = room.H[b * q + a] = room.form[e] + (a == b ? 1.0 : 0.0);
  const double before = logdeterminant;
  if (!invertinformation(q, room.H, C2, L2, logdeterminant, room.scratch)) return false;
  if (weight != 1.0) logdeterminant = before + weight * (logdeterminant - before);
  for (std::size_t a = 0; a < q; ++a) {
    for (std::size_t b = 0; b < r; ++b) {
      const double* X23 = room.form + packedsize(q + b);
      double sum = 0.0;
      for (std::size_t c = 0; c < q; ++c) sum -= C2[a * q + c] * X23[c];
      slope[a * r + b] = sum;
    }
    double sum = -z[a];
    for (std::size_t c = 0; c < npi; ++c) sum += C[c * s + a] * res[c];
    g2[a] = sum;
  }
  return true;
}

// What the unit leaves to level 3: weight times X33 + X23' slope to H3, and B' sum e res + slope' g2 to g3.
void addtolevel3(const SweepRoom& room, const double* C, const double* res, double weight, const double* slope,
                 const double* g2) {
  const std::size_t npi = room.npi, q = room.q, r = room.r, s = q + r;
  for (std::size_t b = 0; b < r; ++b) {
    const double* row = room.form + packedsize(q + b);
    for (std::size_t c = 0; c < r; ++c) {
      double sum = c <= b ? row[q + c] : room.form[packedsize(q + c) + q + b];
      for (std::size_t a = 0; a < q; ++a) sum += row[a] * slope[a * r + c];
      room.H3[b * r + c] += weight * sum;
    }
    double sum = 0.0;
    for (std::size_t c = 0; c < npi; ++c) sum += C[c * s + q + b] * res[c];
    for (std::size_t a = 0; a < q; ++a) sum += slope[a * r + b] * g2[a];
    room.g3[b] += weight * sum;
  }
}

// dz = C2 g2 + slope dw, K = slope C3, P = C2 + K slope'.
void substituteunit(std::size_t q, std::size_t r, const double* C2, const double* slope, const double* C3,
                    const double* g2, const double* dw, double* dz, double* K, double* P) {
  for (std::size_t a = 0; a < q; ++a) {
    double sum = 0.0;
    for (std::size_t b = 0; b < q; ++b) sum += C2[a * q + b] * g2[b];
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
  fit(sweep.work, npi * s + packedsize(s) + 2 * n * n + 2 * n * n);
  fit(sweep.right, units * q + r);
  double *const through = sweep.work.data(), *const form = through + npi * s, *const H = form + packedsize(s),
                *const H3 = H + n * n, *const scratch = H3 + n * n;
  double *const g2 = sweep.right.data(), *const g3 = g2 + units * q;
  const SweepRoom room{npi, q, r, through, form, H, scratch, H3, g3};
  const Form makeform = formof(npi, s);
  sweep.logdeterminant = 0.0;
  std::fill_n(H3, r * r, 0.0);
  for (std::size_t b = 0; b < r; ++b) {
    H3[b * r + b] = 1.0;
    g3[b] = -w[b];
  }
  for (std::size_t j = 0; j < units; ++j) {
    const double *C = columns.data() + j * npi * s, *own = res + j * npi;
    double* slope = sweep.slope.data() + j * q * r;
    const double weight = weights == nullptr ? 1.0 : weights[j];
    makeform(npi, s, M + j * packed, C, through, form);
    if (!eliminateunit(room, C, own, z + j * q, weight, sweep.C2.data() + j * q * q, sweep.L2.data() + j * q * q, slope,
                       g2 + j * q, sweep.logdeterminant))
      return false;
    addtolevel3(room, C, own, weight, slope, g2 + j * q);
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
  for (std::size_t j = 0; j < units; ++j)
    substituteunit(q, r, sweep.C2.data() + j * q * q, sweep.slope.data() + j * q * r, C3, g2 + j * q, dw,
                   sweep.dz.data() + j * q, sweep.K.data() + j * q * r, sweep.P.data() + j * q * q);
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
