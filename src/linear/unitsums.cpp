#include "linear/unitsums.h"

#include <cmath>

namespace kdr {

namespace {

// Four level-2 units side by side, worked by the vector instructions that the machine has.
using Lane = double __attribute__((vector_size(32), aligned(8)));
constexpr int lanes = 4;

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
  for (int lane = 0; lane < lanes; ++lane) to[static_cast<std::size_t>(lane) * stride] = value[lane];
}

inline double total(double value) { return value; }
inline double total(Lane value) { return (value[0] + value[1]) + (value[2] + value[3]); }

inline bool positive(double value) { return value > 0.0; }
inline bool positive(Lane value) { return value[0] > 0.0 && value[1] > 0.0 && value[2] > 0.0 && value[3] > 0.0; }

// The sum of the logarithms of positive factors as a running product: one logarithm in many factors.
struct LogProduct {
  double product = 1.0;
  double sum = 0.0;
  void multiply(double factor) {
    constexpr double least = 1.0e-140, most = 1.0e140;
    if (!(factor > least && factor < most)) {  // out of the range in which two factors can be multiplied
      sum += std::log(factor);
      return;
    }
    product *= factor;
    if (product > least && product < most) return;
    sum += std::log(product);
    product = 1.0;
  }
  void multiply(Lane factors) {
    for (int lane = 0; lane < lanes; ++lane) multiply(factors[lane]);
  }
  [[nodiscard]] double value() const { return sum + std::log(product); }
};

// n values of a type: on the stack when the number is known to the compiler, else from the heap.
template <class Real, int N>
struct Values {
  Real items[N > 0 ? N : 1] = {};
  Array<Real> heap;
  explicit Values(int n) {
    if (N == 0) heap.reset(static_cast<std::size_t>(n));
  }
  Real* data() { return N > 0 ? items : heap.data(); }
};

constexpr int triangle(int n) { return n * (n + 1) / 2; }
// Place of element (i, j) in a packed symmetric matrix.
constexpr int packedat(int i, int j) { return i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i; }

// Inverts a packed symmetric matrix of order n in place by bordering, the steps of syminverse, and returns its
// determinant. A zero pivot makes the determinant 0 or not a number. `v` is a buffer of n values.
template <class Real>
inline Real invertpacked(int n, Real* packed, Real* v) {
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

// The first visit of `units` units in steps of one or four. N names the orders.
template <class Real, class N>
bool visit(const UnitStore& unitstore, double* hot, int units, int step, int order, int random, const double* Spacked,
           Level2Sums& sums, LogProduct& determinants) {
  const int p = N::p > 0 ? N::p : unitstore.p;
  const int b = N::b > 0 ? N::b : random;
  const int nb = N::nb > 0 ? N::nb : order;
  const std::size_t stride = unitstore.hot.stride;
  Values<Real, triangle(N::p)> Cinv(triangle(p)), Cinvsum(triangle(p));
  Values<Real, N::p> Z1Y(p), v(p);
  Values<Real, N::nb * N::p> BZ1(nb * p), H(nb * p);
  Values<Real, triangle(N::nb)> HBsum(triangle(nb));
  Values<Real, N::nb> HYsum(nb);
  Values<Real, triangle(N::b * N::p)> RRsum(triangle(b * p));
  Real *c = Cinv.data(), *csum = Cinvsum.data(), *y = Z1Y.data(), *x = BZ1.data(), *h = H.data();
  Real *HB = HBsum.data(), *HY = HYsum.data(), *RR = RRsum.data();
  Real YCY = {};

  for (int j = 0; j + step <= units; j += step, hot += static_cast<std::size_t>(step) * stride) {
    for (int i = 0; i < triangle(p); ++i) c[i] = load<Real>(hot, stride, static_cast<std::size_t>(i)) + Spacked[i];
    for (int i = 0; i < p; ++i) y[i] = load<Real>(hot, stride, unitstore.atZ1Y + static_cast<std::size_t>(i));
    for (int i = 0; i < nb * p; ++i) x[i] = load<Real>(hot, stride, unitstore.atBZ1 + static_cast<std::size_t>(i));
    const Real det = invertpacked(p, c, v.data());
    if (!positive(det)) return false;
    determinants.multiply(det);
    for (int i = 0; i < triangle(p); ++i) {
      csum[i] += c[i];
      store(hot, stride, unitstore.atCinv + static_cast<std::size_t>(i), c[i]);
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

  const auto spread = [](const Real* packed, int n, Array<double>& full) {
    for (int i = 0; i < n; ++i)
      for (int l = 0; l <= i; ++l) full[i * n + l] += total(*packed++);
  };
  spread(csum, p, sums.Cinv);
  spread(HB, nb, sums.HB);
  spread(RR, b * p, sums.RR);
  for (int m = 0; m < nb; ++m) sums.HY[m] += total(HY[m]);
  sums.YCY += total(YCY);
  return true;
}

// The second visit.
template <class Real, int P, int NB>
double means(const UnitStore& unitstore, double* hot, int units, int step, const double* thetastar, bool keep,
             double* UU) {
  const int p = P > 0 ? P : unitstore.p;
  const int nb = NB > 0 ? NB : unitstore.nb;
  const std::size_t stride = unitstore.hot.stride;
  Values<Real, P> av(p), uv(p);
  Values<Real, triangle(P)> UUsum(triangle(p));
  Real *a = av.data(), *u = uv.data(), *sum = UUsum.data();
  Real ua = {};
  for (int j = 0; j + step <= units; j += step, hot += static_cast<std::size_t>(step) * stride) {
    for (int i = 0; i < p; ++i) a[i] = load<Real>(hot, stride, unitstore.atZ1Y + static_cast<std::size_t>(i));
    for (int m = 0; m < nb; ++m)
      for (int i = 0; i < p; ++i)
        a[i] -= load<Real>(hot, stride, unitstore.atBZ1 + static_cast<std::size_t>(m * p + i)) * thetastar[m];
    for (int i = 0; i < p; ++i) u[i] = Real{};
    for (int i = 0; i < p; ++i)
      for (int l = 0; l <= i; ++l) {
        const Real c = load<Real>(hot, stride, unitstore.atCinv + static_cast<std::size_t>(packedat(i, l)));
        u[i] += c * a[l];
        if (l < i) u[l] += c * a[i];
      }
    for (int i = 0, at = 0; i < p; ++i) {
      ua += u[i] * a[i];
      for (int l = 0; l <= i; ++l, ++at) sum[at] += u[i] * u[l];
      if (keep) store(hot, stride, unitstore.atustar + static_cast<std::size_t>(i), u[i]);
    }
  }
  for (int i = 0, at = 0; i < p; ++i)
    for (int l = 0; l <= i; ++l, ++at) UU[i * p + l] += total(sum[at]);
  return total(ua);
}

// Four at a time, then what is left one by one.
template <class N>
bool visitall(const UnitStore& unitstore, double* hot, int units, int nb, int b, const double* Spacked,
              Level2Sums& sums, LogProduct& determinants) {
  const int whole = units / lanes * lanes;
  return visit<Lane, N>(unitstore, hot, whole, lanes, nb, b, Spacked, sums, determinants) &&
         visit<double, N>(unitstore, hot + static_cast<std::size_t>(whole) * unitstore.hot.stride, units - whole, 1, nb,
                          b, Spacked, sums, determinants);
}

template <int P, int NB>
double meansall(const UnitStore& unitstore, double* hot, int units, const double* thetastar, bool keep, double* UU) {
  const int whole = units / lanes * lanes;
  return means<Lane, P, NB>(unitstore, hot, whole, lanes, thetastar, keep, UU) +
         means<double, P, NB>(unitstore, hot + static_cast<std::size_t>(whole) * unitstore.hot.stride, units - whole, 1,
                              thetastar, keep, UU);
}

using VisitAll = bool (*)(const UnitStore&, double*, int, int, int, const double*, Level2Sums&, LogProduct&);
using MeansAll = double (*)(const UnitStore&, double*, int, const double*, bool, double*);

// The small orders are the daily case and have code of their own: up to two random effects a level, up to four level-2
// coefficients.
VisitAll visitof(int p, int b, int nb) {
  static constexpr VisitAll table[2][2][4] = {
      {{visitall<Orders<1, 1, 1>>, visitall<Orders<1, 1, 2>>, visitall<Orders<1, 1, 3>>, visitall<Orders<1, 1, 4>>},
       {nullptr, visitall<Orders<1, 2, 2>>, visitall<Orders<1, 2, 3>>, visitall<Orders<1, 2, 4>>}},
      {{visitall<Orders<2, 1, 1>>, visitall<Orders<2, 1, 2>>, visitall<Orders<2, 1, 3>>, visitall<Orders<2, 1, 4>>},
       {nullptr, visitall<Orders<2, 2, 2>>, visitall<Orders<2, 2, 3>>, visitall<Orders<2, 2, 4>>}}};
  if (p <= 2 && b <= 2 && nb <= 4) return table[p - 1][b - 1][nb - 1];
  if (p == 3 && b == 3 && nb == 3) return visitall<Orders<3, 3, 3>>;
  if (p == 2 && b == 5 && nb == 5) return visitall<Orders<2, 5, 5>>;
  return visitall<Orders<0, 0, 0>>;
}

MeansAll meansof(int p, int nb) {
  static constexpr MeansAll table[3][4] = {{meansall<1, 1>, meansall<1, 2>, meansall<1, 3>, meansall<1, 4>},
                                           {meansall<2, 1>, meansall<2, 2>, meansall<2, 3>, meansall<2, 4>},
                                           {meansall<3, 1>, meansall<3, 2>, meansall<3, 3>, meansall<3, 4>}};
  return p <= 3 && nb <= 4 ? table[p - 1][nb - 1] : meansall<0, 0>;
}

void mirror(double* m, int n) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < i; ++j) m[j * n + i] = m[i * n + j];
}

}  // namespace

bool sumunits(const UnitStore& store, double* hot, int units, int b, const double* Spacked, Level2Sums& sums) {
  for (Array<double>* m : {&sums.HB, &sums.HY, &sums.RR, &sums.Cinv}) m->fill(0.0);
  sums.YCY = 0.0;
  LogProduct determinants;
  if (!visitof(store.p, b, store.nb)(store, hot, units, store.nb, b, Spacked, sums, determinants)) return false;
  mirror(sums.HB.data(), store.nb);
  mirror(sums.RR.data(), b * store.p);
  mirror(sums.Cinv.data(), store.p);
  sums.logdetCinv = -determinants.value();
  return true;
}

double meanunits(const UnitStore& store, double* hot, int units, const double* thetastar, bool keep, double* UU) {
  for (int i = 0; i < store.p * store.p; ++i) UU[i] = 0.0;
  const double ua = meansof(store.p, store.nb)(store, hot, units, thetastar, keep, UU);
  mirror(UU, store.p);
  return ua;
}

}  // namespace kdr
