// This file is compiled once for each set of vector instructions, into a namespace named after the set. It uses no
// inline function or template from elsewhere: their one copy in the program could then hold instructions that the
// machine does not have.
#include "estimate/linear/unitloops.h"

#include <math.h>

#include <cstdint>

namespace kdr::KDR3_INSTRUCTIONS {

namespace {

// Four level-2 units side by side, worked by the vector instructions that the machine has.
using Lane = double __attribute__((vector_size(32)));

// Element `at` of the record of one unit, or of four records in a row.
template <class Real>
Real load(const double* record, std::size_t stride, std::size_t at);
template <>
inline double load<double>(const double* record, std::size_t, std::size_t at) {
  return record[at];
}
template <>
inline Lane load<Lane>(const double* record, std::size_t stride, std::size_t at) {
  const double* from = record + at;
  return Lane{from[0], from[stride], from[2 * stride], from[3 * stride]};
}

inline void store(double* record, std::size_t, std::size_t at, double value) { record[at] = value; }
inline void store(double* record, std::size_t stride, std::size_t at, Lane value) {
  double* to = record + at;
  for (int i = 0; i < loopstep; ++i) to[static_cast<std::size_t>(i) * stride] = value[i];
}

inline double total(double value) { return value; }
inline double total(Lane value) { return (value[0] + value[1]) + (value[2] + value[3]); }

inline bool within(double value, double least, double most) { return value > least && value < most; }
inline bool within(Lane value, double least, double most) {
  const auto inside = (value > least) & (value < most);
  return ((inside[0] & inside[1]) & (inside[2] & inside[3])) != 0;
}

// The sum of the logarithms of positive factors as a running product: one logarithm in many factors.
template <class Real>
struct LogProduct {
  static constexpr int width = sizeof(Real) / sizeof(double);
  static constexpr double least = 1.0e-140, most = 1.0e140;  // the range in which two factors can be multiplied
  Real product = Real{} + 1.0;
  double sum = 0.0;

  // False when a factor is not positive.
  bool multiply(Real factor) {
    if (!within(factor, least, most) && !addlogarithms(factor)) return false;
    product *= factor;
    if (!within(product, least, most)) addlogarithms(product);
    return true;
  }
  // Moves factors into the sum and leaves ones.
  bool addlogarithms(Real& factor) {
    double values[width];
    __builtin_memcpy(values, &factor, sizeof factor);
    for (const double value : values) {
      if (!(value > 0.0)) return false;
      sum += ::log(value);
    }
    factor = Real{} + 1.0;
    return true;
  }
  // In the end two lanes at a time: their products are in range.
  double value() {
    double values[width];
    __builtin_memcpy(values, &product, sizeof product);
    if (width == 1) return sum + ::log(values[0]);
    for (int i = 0; i < width; i += 2) sum += ::log(values[i] * values[i + 1]);
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
};

// n values: where the compiler knows their number they are its own, in registers as far as they go.
template <class Real, int N>
struct Values {
  Real items[N];
  Values(Buffer<Real>&, int) {}
  Real* data() { return items; }
};
template <class Real>
struct Values<Real, 0> {
  Real* items;
  Values(Buffer<Real>& buffer, int n) : items(buffer.next) { buffer.next += n; }
  Real* data() { return items; }
};
template <class Real, int N>
struct Zeros : Values<Real, N> {
  Zeros(Buffer<Real>& buffer, int n) : Values<Real, N>(buffer, n) {
    for (int i = 0; i < n; ++i) this->items[i] = Real{};
  }
};

constexpr int triangle(int n) { return n * (n + 1) / 2; }
// Place of element (i, j) in a packed symmetric matrix.
constexpr int packedat(int i, int j) { return i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i; }

// Inverts a packed symmetric matrix of order n in place by bordering, the steps of syminverse, and returns its
// determinant. A zero pivot makes the determinant 0 or not a number. `v` is a buffer of n values.
template <class Real>
inline Real invertpacked(int n, Real* packed, Real* v) {
  if (n == 0) return Real{} + 1.0;
  Real det = packed[0];
  packed[0] = 1.0 / det;
  Real* row = packed + 1;
  for (int k = 1; k < n; ++k) {
    Real d = row[k];
    for (int i = 0; i < k; ++i) {
      Real s = packed[packedat(i, 0)] * row[0];
      for (int j = 1; j < k; ++j) s += packed[packedat(i, j)] * row[j];
      v[i] = -s;
      d -= s * row[i];
    }
    det *= d;
    const Real inverse = 1.0 / d;
    row[k] = inverse;
    for (int i = 0; i < k; ++i) {
      const Real scaled = v[i] * inverse;
      row[i] = scaled;
      for (int j = i; j < k; ++j) packed[packedat(j, i)] += v[j] * scaled;
    }
    row += k + 1;
  }
  return det;
}

// The orders of the matrices: those known to the compiler, 0 where they are not.
template <int P, int B, int NB>
struct Orders {
  static constexpr int p = P, b = B, nb = NB;
};

template <class Real>
void spread(const Real* packed, int n, double* full) {
  for (int i = 0; i < n; ++i)
    for (int l = 0; l <= i; ++l) full[i * n + l] += total(*packed++);
}

// The first visit of `units` units in steps of one or four. N names the orders.
template <class Real, class N>
bool first(const UnitRecords& records, double* hot, int units, FirstVisit& visit) {
  constexpr int step = sizeof(Real) / sizeof(double);
  if (units < step) return true;
  const int p = N::p > 0 ? N::p : records.p;
  const int b = N::b > 0 ? N::b : records.b;
  const int nb = N::nb > 0 ? N::nb : records.nb;
  const std::size_t stride = records.stride;
  Buffer<Real> buffer(records.work);
  Values<Real, triangle(N::p)> Cinv(buffer, triangle(p));
  Zeros<Real, triangle(N::p)> Cinvsum(buffer, triangle(p));
  Values<Real, N::p> Z1Y(buffer, p), v(buffer, p);
  Values<Real, N::nb * N::p> BZ1(buffer, nb * p), H(buffer, nb * p);
  Zeros<Real, triangle(N::nb)> HBsum(buffer, triangle(nb));
  Zeros<Real, N::nb> HYsum(buffer, nb);
  Zeros<Real, triangle(N::b * N::p)> RRsum(buffer, triangle(b * p));
  Real *c = Cinv.data(), *csum = Cinvsum.data(), *y = Z1Y.data(), *x = BZ1.data(), *h = H.data();
  Real *HB = HBsum.data(), *HY = HYsum.data(), *RR = RRsum.data();
  Real YCY = {};
  LogProduct<Real> determinants;

  for (int j = 0; j + step <= units; j += step, hot += static_cast<std::size_t>(step) * stride) {
    for (int i = 0; i < triangle(p); ++i) c[i] = load<Real>(hot, stride, static_cast<std::size_t>(i)) + visit.S[i];
    for (int i = 0; i < p; ++i) y[i] = load<Real>(hot, stride, records.atZ1Y + static_cast<std::size_t>(i));
    for (int i = 0; i < nb * p; ++i) x[i] = load<Real>(hot, stride, records.atBZ1 + static_cast<std::size_t>(i));
    if (!determinants.multiply(invertpacked(p, c, v.data()))) return false;
    for (int i = 0; i < triangle(p); ++i) {
      csum[i] += c[i];
      store(hot, stride, records.atCinv + static_cast<std::size_t>(i), c[i]);
    }
    for (int m = 0; m < nb; ++m)
      for (int i = 0; i < p; ++i) {
        Real s = x[m * p] * c[packedat(0, i)];
        for (int l = 1; l < p; ++l) s += x[m * p + l] * c[packedat(l, i)];
        h[m * p + i] = s;
      }
    for (int m = 0, at = 0; m < nb; ++m) {
      for (int n = 0; n <= m; ++n, ++at)
        for (int i = 0; i < p; ++i) HB[at] += h[m * p + i] * x[n * p + i];
      for (int i = 0; i < p; ++i) HY[m] += h[m * p + i] * y[i];
    }
    for (int i = 0; i < p; ++i) {
      Real s = c[packedat(i, 0)] * y[0];
      for (int l = 1; l < p; ++l) s += c[packedat(i, l)] * y[l];
      YCY += s * y[i];
    }
    for (int i = 0, at = 0; i < b * p; ++i)
      for (int l = 0; l <= i; ++l, ++at) RR[at] += h[i] * h[l];
  }

  spread(csum, p, visit.Cinv);
  spread(HB, nb, visit.HB);
  spread(RR, b * p, visit.RR);
  for (int m = 0; m < nb; ++m) visit.HY[m] += total(HY[m]);
  visit.YCY += total(YCY);
  visit.logdetC += determinants.value();
  return true;
}

// The second visit.
template <class Real, int P, int NB>
double means(const UnitRecords& records, double* hot, int units, const double* thetastar, bool keep, double* UU) {
  constexpr int step = sizeof(Real) / sizeof(double);
  const int p = P > 0 ? P : records.p;
  const int nb = NB > 0 ? NB : records.nb;
  const std::size_t stride = records.stride;
  Buffer<Real> buffer(records.work);
  Values<Real, P> av(buffer, p), uv(buffer, p);
  Zeros<Real, triangle(P)> UUsum(buffer, triangle(p));
  Real *a = av.data(), *u = uv.data(), *sum = UUsum.data();
  Real ua = {};
  for (int j = 0; j + step <= units; j += step, hot += static_cast<std::size_t>(step) * stride) {
    for (int i = 0; i < p; ++i) a[i] = load<Real>(hot, stride, records.atZ1Y + static_cast<std::size_t>(i));
    for (int m = 0; m < nb; ++m)
      for (int i = 0; i < p; ++i)
        a[i] -= load<Real>(hot, stride, records.atBZ1 + static_cast<std::size_t>(m * p + i)) * thetastar[m];
    for (int i = 0; i < p; ++i) u[i] = Real{};
    for (int i = 0; i < p; ++i)
      for (int l = 0; l <= i; ++l) {
        const Real c = load<Real>(hot, stride, records.atCinv + static_cast<std::size_t>(packedat(i, l)));
        u[i] += c * a[l];
        if (l < i) u[l] += c * a[i];
      }
    for (int i = 0, at = 0; i < p; ++i) {
      ua += u[i] * a[i];
      for (int l = 0; l <= i; ++l, ++at) sum[at] += u[i] * u[l];
      if (keep) store(hot, stride, records.atustar + static_cast<std::size_t>(i), u[i]);
    }
  }
  spread(sum, p, UU);
  return total(ua);
}

// C (m by n) = A (m by k) B (k by n); an operand may be the same for all units.
template <class Real, class Left, class Right>
inline void product(Real* C, const Left* A, const Right* B, int m, int n, int k) {
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < n; ++j) {
      Real sum = A[i * k] * B[j];
      for (int l = 1; l < k; ++l) sum += A[i * k + l] * B[l * n + j];
      C[i * n + j] = sum;
    }
}

// The visit of a scoring step. P and B are the orders of taupi and taubeta when known to the compiler, else 0.
template <class Real, int P, int B>
void scoring(const UnitRecords& records, const double* hot, int units, const ScoringVisit& visit) {
  constexpr int step = sizeof(Real) / sizeof(double);
  const int p = P > 0 ? P : records.p;
  const int b = B > 0 ? B : records.b;
  const double s = visit.s;
  const std::size_t stride = records.stride;
  Buffer<Real> buffer(records.work);
  Values<Real, P * P> Cv(buffer, p * p), Gv(buffer, p * p), Nv(buffer, p * p), Bv(buffer, p * p), CTv(buffer, p * p),
      workv(buffer, p * p);
  Values<Real, B * P> Rv(buffer, b * p), ERv(buffer, b * p);
  Zeros<Real, P * P * P * P> TTsum(buffer, p * p * p * p);
  Zeros<Real, P * P> FFsum(buffer, p * p);
  Real *C = Cv.data(), *G = Gv.data(), *N = Nv.data(), *Bjj = Bv.data(), *CT = CTv.data(), *work = workv.data();
  Real *R = Rv.data(), *ER = ERv.data(), *TT = TTsum.data(), *FF = FFsum.data();
  for (int j = 0; j + step <= units; j += step, hot += static_cast<std::size_t>(step) * stride) {
    for (int i = 0, at = 0; i < p; ++i)
      for (int l = 0; l <= i; ++l, ++at)
        C[i * p + l] = C[l * p + i] = load<Real>(hot, stride, records.atCinv + static_cast<std::size_t>(at));
    for (int c = 0; c < b; ++c) {
      Real* row = ER;  // row c of z Z2'Z1, until ER is formed
      for (int i = 0; i < p; ++i)
        row[i] = visit.z * load<Real>(hot, stride, records.atBZ1 + static_cast<std::size_t>(c * p + i));
      product(R + c * p, row, C, 1, p, p);
    }
    product(ER, visit.E, R, b, p, b);
    for (int i = 0; i < p; ++i)  // G = R'E R
      for (int l = 0; l < p; ++l) {
        Real sum = b > 0 ? R[i] * ER[l] : Real{};
        for (int c = 1; c < b; ++c) sum += R[c * p + i] * ER[c * p + l];
        G[i * p + l] = sum;
      }
    product(CT, C, visit.Ti, p, p, p);
    product(work, visit.Ti, G, p, p, p);
    product(Bjj, work, visit.Ti, p, p, p);
    product(work, visit.Ti, CT, p, p, p);
    for (int i = 0; i < p * p; ++i) N[i] = visit.Ti[i] - s * (work[i] + Bjj[i]);  // T^-1 - s T^-1 V_j T^-1
    for (int i = 0; i < p * p; ++i) Bjj[i] = s * Bjj[i];
    Real* sum = TT;
    for (int i = 0; i < p; ++i)
      for (int k = 0; k < p; ++k)
        for (int l = 0; l < p; ++l)
          for (int m = 0; m < p; ++m) *sum++ += N[i * p + l] * N[k * p + m] - Bjj[i * p + l] * Bjj[k * p + m];
    product(work, CT, C, p, p, p);
    for (int i = 0; i < p * p; ++i) FF[i] += work[i];
    product(work, CT, G, p, p, p);
    for (int i = 0; i < p; ++i)
      for (int l = 0; l < p; ++l) FF[i * p + l] += work[i * p + l] + work[l * p + i];
  }
  for (int i = 0; i < p * p * p * p; ++i) visit.TT[i] += total(TT[i]);
  for (int i = 0; i < p * p; ++i) visit.FF[i] += total(FF[i]);
}

// Four at a time, then what is left one by one.
int whole(const UnitRecords& records) { return records.units / loopstep * loopstep; }
double* rest(const UnitRecords& records) {
  return records.hot + static_cast<std::size_t>(whole(records)) * records.stride;
}
int left(const UnitRecords& records) { return records.units - whole(records); }

template <class N>
bool firstall(const UnitRecords& records, FirstVisit& visit) {
  return first<Lane, N>(records, records.hot, whole(records), visit) &&
         first<double, N>(records, rest(records), left(records), visit);
}

template <int P, int NB>
double meansall(const UnitRecords& records, const double* thetastar, bool keep, double* UU) {
  const double ua = means<Lane, P, NB>(records, records.hot, whole(records), thetastar, keep, UU);
  return ua + means<double, P, NB>(records, rest(records), left(records), thetastar, keep, UU);
}

template <int P, int B>
void scoringall(const UnitRecords& records, const ScoringVisit& visit) {
  scoring<Lane, P, B>(records, records.hot, whole(records), visit);
  scoring<double, P, B>(records, rest(records), left(records), visit);
}

// The small orders are the daily case and have code of their own: up to two random effects a level, up to four level-2
// coefficients, and some beyond.
bool anyfirst(const UnitRecords& records, FirstVisit& visit) {
  using First = bool (*)(const UnitRecords&, FirstVisit&);
  static constexpr First table[2][2][4] = {
      {{firstall<Orders<1, 1, 1>>, firstall<Orders<1, 1, 2>>, firstall<Orders<1, 1, 3>>, firstall<Orders<1, 1, 4>>},
       {nullptr, firstall<Orders<1, 2, 2>>, firstall<Orders<1, 2, 3>>, firstall<Orders<1, 2, 4>>}},
      {{firstall<Orders<2, 1, 1>>, firstall<Orders<2, 1, 2>>, firstall<Orders<2, 1, 3>>, firstall<Orders<2, 1, 4>>},
       {nullptr, firstall<Orders<2, 2, 2>>, firstall<Orders<2, 2, 3>>, firstall<Orders<2, 2, 4>>}}};
  const int p = records.p, b = records.b, nb = records.nb;
  const bool none = p == 0 || b == 0;  // no random effect at one of the levels
  if (!none && p <= 2 && b <= 2 && nb <= 4) return table[p - 1][b - 1][nb - 1](records, visit);
  if (p == 3 && b == 3 && nb == 3) return firstall<Orders<3, 3, 3>>(records, visit);
  if (p == 2 && b == 5 && nb == 5) return firstall<Orders<2, 5, 5>>(records, visit);
  return firstall<Orders<0, 0, 0>>(records, visit);
}

double anymeans(const UnitRecords& records, const double* thetastar, bool keep, double* UU) {
  using Means = double (*)(const UnitRecords&, const double*, bool, double*);
  static constexpr Means table[3][5] = {
      {meansall<1, 1>, meansall<1, 2>, meansall<1, 3>, meansall<1, 4>, meansall<1, 5>},
      {meansall<2, 1>, meansall<2, 2>, meansall<2, 3>, meansall<2, 4>, meansall<2, 5>},
      {meansall<3, 1>, meansall<3, 2>, meansall<3, 3>, meansall<3, 4>, meansall<3, 5>}};
  const bool small = records.p > 0 && records.p <= 3 && records.nb <= 5;
  return (small ? table[records.p - 1][records.nb - 1] : meansall<0, 0>)(records, thetastar, keep, UU);
}

void anyscoring(const UnitRecords& records, const ScoringVisit& visit) {
  using Scoring = void (*)(const UnitRecords&, const ScoringVisit&);
  static constexpr Scoring table[3][3] = {{scoringall<1, 1>, scoringall<1, 2>, scoringall<1, 3>},
                                          {scoringall<2, 1>, scoringall<2, 2>, scoringall<2, 3>},
                                          {scoringall<3, 1>, scoringall<3, 2>, scoringall<3, 3>}};
  const int p = records.p, b = records.b;
  if (p > 0 && b > 0 && p <= 3 && b <= 3) return table[p - 1][b - 1](records, visit);
  if (p == 2 && b == 5) return scoringall<2, 5>(records, visit);
  scoringall<0, 0>(records, visit);
}

}  // namespace

extern const UnitLoops loops;
const UnitLoops loops = {anyfirst, anymeans, anyscoring};

}  // namespace kdr::KDR3_INSTRUCTIONS
