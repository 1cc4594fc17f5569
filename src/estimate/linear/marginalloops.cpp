// This file is compiled once for each set of vector instructions, into a namespace named after the set. It uses no
// inline function or template from elsewhere: their one copy in the program could then hold instructions that the
// machine does not have. So what it has in common with unitloops.cpp, which is under the same rule, stands in both.
#include "estimate/linear/marginalloops.h"

#include <math.h>

#include <cstdint>

#include "estimate/linear/elimination.h"

namespace kdr::KDR3_INSTRUCTIONS {

namespace {

// Four level-2 units side by side, worked by the vector instructions that the machine has.
using Lane = double __attribute__((vector_size(32)));

inline double gather(const double* const* records, int at, double) { return records[0][at]; }
inline Lane gather(const double* const* records, int at, Lane) {
  return Lane{records[0][at], records[1][at], records[2][at], records[3][at]};
}

inline double total(double value) { return value; }
inline double total(Lane value) { return (value[0] + value[1]) + (value[2] + value[3]); }

inline bool within(double value, double least, double most) { return value > least && value < most; }
inline bool within(Lane value, double least, double most) {
  const auto inside = (value > least) & (value < most);
  return ((inside[0] & inside[1]) & (inside[2] & inside[3])) != 0;
}

// The sum of the logarithms of positive factors as a running product: one logarithm in many factors. Not a number when
// a factor is not positive.
template <class Real>
struct LogProduct {
  static constexpr int width = sizeof(Real) / sizeof(double);
  static constexpr double least = 1.0e-140, most = 1.0e140;  // the range in which two factors can be multiplied
  Real product = Real{} + 1.0;
  double sum = 0.0;

  void multiply(Real factor) {
    if (!within(factor, least, most)) addlogarithms(factor);
    product *= factor;
    if (!within(product, least, most)) addlogarithms(product);
  }
  // Moves factors into the sum and leaves ones.
  void addlogarithms(Real& factor) {
    double values[width];
    __builtin_memcpy(values, &factor, sizeof factor);
    for (const double value : values) sum += value > 0.0 ? ::log(value) : NAN;
    factor = Real{} + 1.0;
  }
  double value() {
    addlogarithms(product);
    return sum;
  }
};

// Pieces of one buffer, one behind the other, from the first place on that has the alignment of a Real.
template <class Real>
struct Buffer {
  Real* next;
  explicit Buffer(double* work) {
    while (reinterpret_cast<std::uintptr_t>(work) % alignof(Real) != 0) ++work;
    next = reinterpret_cast<Real*>(work);
  }
  Real* take(int n) {
    Real* const taken = next;
    next += n;
    return taken;
  }
  Real* zeros(int n) {
    Real* const taken = take(n);
    for (int i = 0; i < n; ++i) taken[i] = Real{};
    return taken;
  }
};

constexpr int triangle(int n) { return n * (n + 1) / 2; }

template <class Real>
void spread(const Real* from, int n, double* to) {
  for (int i = 0; i < n; ++i) to[i] += total(from[i]);
}

// R = (s I + S T)^-1; returns the determinant of its inverse over s^p. Order 1 and 2 in closed form, where no term of
// the determinant is negative: s^2 + s tr(ST) + det S det T.
template <class Real, int P>
inline Real resolvent(int order, double s, const Real* S, const double* T, Real* R, Real* work) {
  if constexpr (P == 1) {
    const Real m = S[0] * T[0] + s;
    R[0] = 1.0 / m;
    return m / s;
  } else if constexpr (P == 2) {
    const Real a = S[0] * T[0] + S[1] * T[2], d = S[2] * T[1] + S[3] * T[3];
    const Real detS = S[0] * S[3] - S[1] * S[2];
    const Real determinant = s * s + (a + d) * s + detS * (T[0] * T[3] - T[1] * T[2]);
    const Real inverse = 1.0 / determinant;
    R[0] = (d + s) * inverse;
    R[1] = -(S[0] * T[1] + S[1] * T[3]) * inverse;
    R[2] = -(S[2] * T[0] + S[3] * T[2]) * inverse;
    R[3] = (a + s) * inverse;
    return determinant / (s * s);
  } else {
    const double* pivots = eliminate(order, s, S, T, R, work);
    double determinant = 1.0;
    for (int c = 0; c < order; ++c) determinant *= (pivots[c] < 0.0 ? -pivots[c] : pivots[c]) / s;
    return determinant;
  }
}

// out = rows X' (n by p).
template <class Real>
inline void timestransposed(Real* out, const Real* rows, const Real* X, int n, int p) {
  for (int c = 0; c < n; ++c)
    for (int i = 0; i < p; ++i) {
      Real sum = rows[c * p] * X[i * p];
      for (int l = 1; l < p; ++l) sum += rows[c * p + l] * X[i * p + l];
      out[c * p + i] = sum;
    }
}

// The lower triangle of G, packed, += A H' (C squared), which is symmetric.
template <class Real>
inline void addgram(Real* G, const Real* A, const Real* H, int C, int p) {
  for (int c = 0, at = 0; c < C; ++c)
    for (int d = 0; d <= c; ++d, ++at)
      for (int i = 0; i < p; ++i) G[at] += A[c * p + i] * H[d * p + i];
}

template <class Real>
void spreadtriangle(const Real* packed, int C, double* full) {
  for (int c = 0; c < C; ++c)
    for (int d = 0; d <= c; ++d) full[c * C + d] += total(*packed++);
}

// Row 0 becomes that of r = Y - B theta.
template <class Real>
inline void takeresidual(Real* rows, int C, int p, const double* theta) {
  for (int m = 1; m < C; ++m)
    for (int i = 0; i < p; ++i) rows[i] -= rows[m * p + i] * theta[m - 1];
}

// What a unit, or four, keep for the second visit.
template <class Real>
struct Kept {
  Real *K, *K2, *H1, *H2;  // A'W^-1 A, A'W^-2 A (p squared); (A'W^-m [r | B])' (C by p)
  Kept(Real* from, int p, int C) : K(from), K2(K + p * p), H1(K2 + p * p), H2(H1 + C * p) {}
  static int size(int p, int C) { return 2 * p * p + 2 * C * p; }
};

template <class Real, int P>
void first(const MarginalRecords& records, MarginalFirst& visit) {
  constexpr int step = sizeof(Real) / sizeof(double);
  const int p = P > 0 ? P : records.p, C = records.C, np = triangle(p), width = np + 2 * C * p;
  const double s = visit.s;
  Buffer<Real> buffer(records.work);
  const double* const nothing = reinterpret_cast<const double*>(buffer.zeros(width));  // the record of no unit
  Real *const SA = buffer.take(C * p), *const beta = buffer.take(C * p), *const H3 = buffer.take(C * p);
  Real *const S = buffer.take(p * p), *const R = buffer.take(p * p), *const work = buffer.take(2 * p * p + p);
  Real* const own = buffer.take(Kept<Real>::size(p, C));
  Real *const G1 = buffer.zeros(triangle(C)), *const G2 = buffer.zeros(triangle(C)),
              *const G3 = buffer.zeros(triangle(C));
  Real traceR = {}, traceRR = {};
  LogProduct<Real> determinants;
  Real* keep = visit.kept != nullptr ? Buffer<Real>(visit.kept).next : nullptr;
  int pads = 0;
  for (int j = 0; j < records.units; j += step) {
    const double* from[step];
    for (int l = 0; l < step; ++l) {
      const bool unit = j + l < records.units;
      from[l] = unit ? records.first + static_cast<std::size_t>(j + l) * records.stride : nothing;
      pads += unit ? 0 : 1;
    }
    for (int i = 0, at = 0; i < p; ++i)
      for (int l = 0; l <= i; ++l, ++at) S[i * p + l] = S[l * p + i] = gather(from, at, Real{});
    for (int i = 0; i < C * p; ++i) {
      SA[i] = gather(from, np + i, Real{});
      beta[i] = gather(from, np + C * p + i, Real{});
    }
    takeresidual(SA, C, p, visit.theta);
    takeresidual(beta, C, p, visit.theta);
    determinants.multiply(resolvent<Real, P>(p, s, S, visit.T, R, work));
    const Kept<Real> unit(keep != nullptr ? keep : own, p, C);
    timestransposed(unit.H1, SA, R, C, p);
    addgram(G1, beta, unit.H1, C, p);
    if (visit.powers == 1) continue;
    timestransposed(unit.H2, unit.H1, R, C, p);
    timestransposed(H3, unit.H2, R, C, p);
    addgram(G2, beta, unit.H2, C, p);
    addgram(G3, beta, H3, C, p);
    for (int i = 0; i < p; ++i) {
      traceR += R[i * p + i] * s;
      for (int l = 0; l < p; ++l) traceRR += R[i * p + l] * R[l * p + i] * (s * s);
    }
    timestransposed(unit.K, R, S, p, p);
    if (visit.all) timestransposed(unit.K2, R, unit.K, p, p);
    if (keep != nullptr) keep += Kept<Real>::size(p, C);
  }
  visit.logdeterminant += determinants.value();
  spreadtriangle(G1, C, visit.G1);
  if (visit.powers == 1) return;
  spreadtriangle(G2, C, visit.G2);
  spreadtriangle(G3, C, visit.G3);
  visit.traceR += total(traceR) - pads * p;
  visit.traceRR += total(traceRR) - pads * p;
}

// X += factor x y' over C columns, or of the first alone.
template <class Real, bool all>
inline void outer(Real* X, Real factor, const Real* x, const Real* y, int C) {
  if constexpr (!all) {
    X[0] += factor * x[0] * y[0];
  } else {
    for (int c = 0; c < C; ++c) {
      const Real f = factor * x[c];
      for (int d = 0; d < C; ++d) X[c * C + d] += f * y[d];
    }
  }
}

// An element of a symmetric matrix as the pairs of a row and a column: E = e_r e_q' + e_q e_r', or e_r e_r'.
struct Element {
  int i[2], j[2], pairs;
  Element(int r, int q) : i{r, q}, j{q, r}, pairs(r == q ? 1 : 2) {}
};

// Pointers to the sums of a second visit, as Reals.
template <class Real>
struct Sums {
  Real *t, *P, *Qs, *Q, *Y, *Lambda, *Tp, *Ts;
};

// What one unit, or four, add.
template <class Real, int P, bool all>
inline void addunit(const MarginalRecords& records, const MarginalSecond& visit, const Kept<Real>& unit,
                    const Sums<Real>& sums, Buffer<Real> buffer) {
  const int p = P > 0 ? P : records.p, b = records.b, C = records.C;
  Real *const NL = buffer.take(b * p), *const LNL = buffer.zeros(p * p), *const Kf = buffer.take(p * p),
              *const KM = buffer.take(p * p), *const O = buffer.take(p * p), *const U = buffer.take(p * C),
              *const U2 = buffer.take(p * C);
  const Real *const L = unit.H1 + p, *const L2 = unit.H2 + p, *const K = unit.K;
  // L'N L; Kf = K - L'N L = A'(V^-1)_jj A
  for (int a = 0; a < b; ++a)
    for (int i = 0; i < p; ++i) {
      Real sum = {};
      for (int c = 0; c < b; ++c) sum += L[c * p + i] * visit.N[a * b + c];
      NL[a * p + i] = sum;
      for (int l = 0; l < p; ++l) LNL[l * p + i] += L[a * p + l] * sum;
    }
  for (int i = 0; i < p * p; ++i) Kf[i] = K[i] - LNL[i];
  if constexpr (all) {
    // O = K2 - L2'N L - L'N L2 + L'N C2 N L = A'(V^-2)_jj A
    for (int i = 0; i < p * p; ++i) {
      KM[i] = K[i] - LNL[i] * 2.0;
      O[i] = unit.K2[i];
    }
    for (int a = 0; a < b; ++a)
      for (int i = 0; i < p; ++i) {
        Real bent = {};
        for (int c = 0; c < b; ++c) bent += L[c * p + i] * visit.NC2N[a * b + c];
        for (int l = 0; l < p; ++l) {
          const Real product = L2[a * p + l] * NL[a * p + i];
          O[l * p + i] += L[a * p + l] * bent - product;
          O[i * p + l] -= product;
        }
      }
  }
  // U = (H1 - L TF)', U2 = (H2 - L2 TF - L TF2)'
  for (int c = 0; c < C; ++c)
    for (int i = 0; i < p; ++i) {
      Real u = unit.H1[c * p + i];
      for (int a = 0; a < b; ++a) u -= L[a * p + i] * visit.TF[a * C + c];
      U[i * C + c] = u;
    }
  for (int c = 0; c < (all ? C : 1); ++c)
    for (int i = 0; i < p; ++i) {
      Real u = unit.H2[c * p + i];
      for (int a = 0; a < b; ++a) u -= L2[a * p + i] * visit.TF[a * C + c] + L[a * p + i] * visit.TF2[a * C + c];
      U2[i * C + c] = u;
    }
  const int block = all ? C * C : 1;
  int e = 0;
  for (int r = 0; r < p; ++r)
    for (int q = 0; q <= r; ++q, ++e) {
      const Element E(r, q);
      for (int m = 0; m < E.pairs; ++m) {
        const int i = E.i[m], j = E.j[m];
        const Real *const x = U + i * C, *const y = U + j * C;
        sums.t[e] += Kf[i * p + j];
        Real* X = sums.P + e * triangle(C);
        for (int c = 0; c < C; ++c)
          for (int d = 0; d <= c; ++d) *X++ += x[c] * y[d];
        outer<Real, all>(sums.Qs + e * block, Real{} + 1.0, x, U2 + j * C, C);
        for (int a = 0; a < b; ++a) {
          const Real l = L[a * p + i];
          for (int c = 0; c < (all ? C : 1); ++c) sums.Y[(e * b + a) * C + c] += l * y[c];
          if constexpr (all)
            for (int c = 0; c < b; ++c) sums.Lambda[(e * b + a) * b + c] += l * L[c * p + j];
        }
        if constexpr (all) sums.Ts[e] += O[i * p + j];
      }
      int f = 0;
      for (int v = 0; v < p; ++v)
        for (int w = 0; w <= v && f <= e; ++w, ++f) {
          const Element F(v, w);
          const int pair = e * (e + 1) / 2 + f;
          for (int m = 0; m < E.pairs; ++m)
            for (int n = 0; n < F.pairs; ++n) {
              const int i = E.i[m], j = E.j[m], k = F.i[n], l = F.j[n];
              outer<Real, all>(sums.Q + pair * block, K[j * p + k], U + i * C, U + l * C, C);
              if constexpr (all) sums.Tp[pair] += K[j * p + k] * KM[l * p + i];
            }
        }
    }
}

template <class Real, int P, bool all>
void second(const MarginalRecords& records, const MarginalSecond& visit) {
  constexpr int step = sizeof(Real) / sizeof(double);
  const int p = P > 0 ? P : records.p, b = records.b, C = records.C, np = triangle(p), pairs = triangle(np);
  const int block = all ? C * C : 1;
  Buffer<Real> buffer(records.work);
  const Sums<Real> sums{
      buffer.zeros(np),         buffer.zeros(np * triangle(C)), buffer.zeros(np * block), buffer.zeros(pairs * block),
      buffer.zeros(np * b * C), buffer.zeros(np * b * b),       buffer.zeros(pairs),      buffer.zeros(np)};
  Real* from = Buffer<Real>(const_cast<double*>(visit.kept)).next;
  for (int j = 0; j < records.units; j += step, from += Kept<Real>::size(p, C))
    addunit<Real, P, all>(records, visit, Kept<Real>(from, p, C), sums, buffer);
  spread(sums.t, np, visit.t);
  for (int e = 0; e < np; ++e) spreadtriangle(sums.P + e * triangle(C), C, visit.P + e * C * C);
  spread(sums.Qs, np * block, visit.Qs);
  spread(sums.Q, pairs * block, visit.Q);
  spread(sums.Y, np * b * C, visit.Y);
  if constexpr (!all) return;
  spread(sums.Lambda, np * b * b, visit.Lambda);
  spread(sums.Tp, pairs, visit.Tp);
  spread(sums.Ts, np, visit.Ts);
}

void anyfirst(const MarginalRecords& records, MarginalFirst& visit) {
  switch (records.p) {
    case 1:
      return first<Lane, 1>(records, visit);
    case 2:
      return first<Lane, 2>(records, visit);
    default:
      return first<double, 0>(records, visit);
  }
}

template <bool all>
void anysecondof(const MarginalRecords& records, const MarginalSecond& visit) {
  switch (records.p) {
    case 1:
      return second<Lane, 1, all>(records, visit);
    case 2:
      return second<Lane, 2, all>(records, visit);
    default:
      return second<double, 0, all>(records, visit);
  }
}
void anysecond(const MarginalRecords& records, const MarginalSecond& visit) {
  visit.all ? anysecondof<true>(records, visit) : anysecondof<false>(records, visit);
}

}  // namespace

extern const MarginalLoops marginalloopset;
const MarginalLoops marginalloopset = {anyfirst, anysecond};

}  // namespace kdr::KDR3_INSTRUCTIONS
