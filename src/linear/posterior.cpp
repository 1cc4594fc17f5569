#include "linear/posterior.h"

#include <algorithm>
#include <cmath>

#include "driver/failures.h"
#include "driver/runrecord.h"
#include "kernel/decompositions.h"

namespace kdr {

namespace {

std::size_t at(int i) { return static_cast<std::size_t>(i); }
std::size_t square(int n) { return at(n) * at(n); }

// A sum of logarithms as a running product: one logarithm in many factors.
struct LogProduct {
  double product = 1.0;
  double sum = 0.0;
  void multiply(double factor) {
    product *= factor;
    if (product > 1.0e-140 && product < 1.0e140) return;
    // Factors of ordinary size keep the product in range until here; one that leaves the range of a double is taken
    // apart.
    product /= factor;
    sum += std::log(product) + std::log(factor);
    product = 1.0;
  }
  [[nodiscard]] double value() const { return sum + std::log(product); }
};

// Inverts the packed symmetric matrix of order N (0: n) in place by bordering and returns its determinant, 0.0 when a
// pivot is exactly 0. The same steps as syminverse; `v` is a buffer of n values.
template <int N>
double invertpacked(int order, double* packed, double* v) {
  const int n = N > 0 ? N : order;
  if (N == 1) {
    const double d = packed[0];
    packed[0] = 1.0 / d;
    return d;
  }
  double det = packed[0];
  if (det == 0.0) return 0.0;
  packed[0] = 1.0 / det;
  double* row = packed + 1;
  for (int k = 1; k < n; ++k) {
    double d = row[k];
    for (int i = 0; i < k; ++i) {
      double s = 0.0;
      for (int j = 0; j < k; ++j) s += packed[i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i] * row[j];
      v[i] = -s;
      d -= s * row[i];
    }
    det *= d;
    if (d == 0.0) return 0.0;
    const double inverse = 1.0 / d;
    row[k] = inverse;
    for (int i = 0; i < k; ++i) {
      const double scaled = v[i] * inverse;
      row[i] = scaled;
      for (int j = i; j < k; ++j) packed[j * (j + 1) / 2 + i] += v[j] * scaled;
    }
    row += k + 1;
  }
  return det;
}

// Sums over the units, first visit: C^-1 into each record, HB (lower triangle), HY, RR (lower triangle), sum of C^-1.
// P is the order of taupi and B that of taubeta when known to the compiler, else 0.
template <int P, int B>
bool sumunits(const UnitStore& store, double* hot, int units, int b, const double* Spacked, Level2Sums& sums,
              Array<double>& buffer) {
  const int p = P > 0 ? P : store.p;
  const int nrandom = B > 0 ? B : b;
  const int nb = store.nb;
  const int triangle = p * (p + 1) / 2;
  double* HB = sums.HB.data();
  double* HY = sums.HY.data();
  double* RR = sums.RR.data();
  double Cinvsum[P > 0 ? P * (P + 1) / 2 : 1] = {};
  double* Cinvtotal = P > 0 ? Cinvsum : buffer.data();
  double* h = buffer.data() + triangle;  // H_j, nb rows of p
  double* full = h + nb * p;             // C^-1 in full
  double column[P > 0 ? P : 1];
  double* v = P > 0 ? column : full + p * p;
  double YCY = 0.0;
  LogProduct determinants;
  for (int j = 0; j < units; ++j, hot += store.hot.stride) {
    double* Cinv = hot + store.atCinv;
    for (int i = 0; i < triangle; ++i) Cinv[i] = hot[i] + Spacked[i];
    const double det = invertpacked<P>(p, Cinv, v);
    if (!(det > 0.0)) return false;
    determinants.multiply(1.0 / det);
    for (int i = 0; i < triangle; ++i) Cinvtotal[i] += Cinv[i];
    for (int i = 0, at = 0; i < p; ++i)
      for (int l = 0; l <= i; ++l, ++at) full[i * p + l] = full[l * p + i] = Cinv[at];

    const double* Z1Y = hot + store.atZ1Y;
    const double* BZ1 = hot + store.atBZ1;
    for (int m = 0; m < nb; ++m)
      for (int i = 0; i < p; ++i) {
        double s = 0.0;
        for (int l = 0; l < p; ++l) s += BZ1[m * p + l] * full[l * p + i];
        h[m * p + i] = s;
      }
    for (int m = 0; m < nb; ++m) {
      const double* hm = h + m * p;
      for (int n = 0; n <= m; ++n) {
        double s = 0.0;
        for (int i = 0; i < p; ++i) s += hm[i] * BZ1[n * p + i];
        HB[m * nb + n] += s;
      }
      double s = 0.0;
      for (int i = 0; i < p; ++i) s += hm[i] * Z1Y[i];
      HY[m] += s;
    }
    for (int i = 0; i < p; ++i)
      for (int l = 0; l < p; ++l) YCY += Z1Y[i] * full[i * p + l] * Z1Y[l];
    const int rows = nrandom * p;
    for (int i = 0; i < rows; ++i)
      for (int l = 0; l <= i; ++l) RR[i * rows + l] += h[i] * h[l];
  }
  for (int i = 0, at = 0; i < p; ++i)
    for (int l = 0; l <= i; ++l, ++at) sums.Cinv[static_cast<std::size_t>(i * p + l)] = Cinvtotal[at];
  sums.YCY = YCY;
  sums.logdetCinv = determinants.value();
  return true;
}

// Second visit: u* of each unit; returns the sum of u'a, a = C u, and the lower triangle of the sum of u u' in UU.
template <int P>
double meanunits(const UnitStore& store, double* hot, int units, const double* thetastar, bool keep, double* UU,
                 Array<double>& buffer) {
  const int p = P > 0 ? P : store.p;
  const int nb = store.nb;
  double abuffer[P > 0 ? P : 1], ubuffer[P > 0 ? P : 1];
  double* a = P > 0 ? abuffer : buffer.data();
  double* u = P > 0 ? ubuffer : buffer.data() + p;
  double ua = 0.0;
  for (int j = 0; j < units; ++j, hot += store.hot.stride) {
    const double* Cinv = hot + store.atCinv;
    const double* BZ1 = hot + store.atBZ1;
    for (int i = 0; i < p; ++i) a[i] = hot[store.atZ1Y + static_cast<std::size_t>(i)];
    for (int m = 0; m < nb; ++m)
      for (int i = 0; i < p; ++i) a[i] -= BZ1[m * p + i] * thetastar[m];
    for (int i = 0; i < p; ++i) {
      double s = 0.0;
      for (int l = 0; l < p; ++l) s += Cinv[i >= l ? i * (i + 1) / 2 + l : l * (l + 1) / 2 + i] * a[l];
      u[i] = s;
    }
    for (int i = 0; i < p; ++i) {
      ua += u[i] * a[i];
      for (int l = 0; l <= i; ++l) UU[i * p + l] += u[i] * u[l];
      if (keep) hot[store.atustar + static_cast<std::size_t>(i)] = u[i];
    }
  }
  return ua;
}

using SumUnits = bool (*)(const UnitStore&, double*, int, int, const double*, Level2Sums&, Array<double>&);
using MeanUnits = double (*)(const UnitStore&, double*, int, const double*, bool, double*, Array<double>&);

// The small orders are the daily case and have code of their own.
SumUnits sumunitsof(int p, int b) {
  static constexpr SumUnits table[4][4] = {{sumunits<1, 1>, sumunits<1, 2>, sumunits<1, 3>, sumunits<1, 4>},
                                           {sumunits<2, 1>, sumunits<2, 2>, sumunits<2, 3>, sumunits<2, 4>},
                                           {sumunits<3, 1>, sumunits<3, 2>, sumunits<3, 3>, sumunits<3, 4>},
                                           {sumunits<4, 1>, sumunits<4, 2>, sumunits<4, 3>, sumunits<4, 4>}};
  return p <= 4 && b <= 4 ? table[p - 1][b - 1] : sumunits<0, 0>;
}

MeanUnits meanunitsof(int p) {
  static constexpr MeanUnits table[4] = {meanunits<1>, meanunits<2>, meanunits<3>, meanunits<4>};
  return p <= 4 ? table[p - 1] : meanunits<0>;
}

void mirror(double* m, int n) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < i; ++j) m[j * n + i] = m[i * n + j];
}

void clearsums(Level2Sums& sums) {
  sums.HB.fill(0.0);
  sums.HY.fill(0.0);
  sums.RR.fill(0.0);
  sums.Cinv.fill(0.0);
}

Level3Posterior makeposterior(const Pass& pass) {
  Level3Posterior unit;
  unit.sums.HB.reset(square(pass.nbeta));
  unit.sums.HY.reset(at(pass.nbeta));
  unit.sums.RR.reset(square(pass.b * pass.p));
  unit.sums.Cinv.reset(square(pass.p));
  unit.weights.reset(pass.design.owner3.size());
  unit.P.reset(square(pass.nbeta));
  unit.y.reset(at(pass.nbeta));
  unit.E.reset(square(pass.b));
  unit.q.reset(at(pass.b));
  unit.v.reset(at(pass.b));
  unit.theta.reset(at(pass.nbeta));
  unit.thetastar.reset(at(pass.nbeta));
  unit.PP.reset(square(pass.p));
  unit.UU.reset(square(pass.p));
  return unit;
}

// x' M x, M of order n.
double quadratic(const double* M, const double* x, int n) {
  double total = 0.0;
  for (int i = 0; i < n; ++i) {
    double s = 0.0;
    for (int j = 0; j < n; ++j) s += M[i * n + j] * x[j];
    total += x[i] * s;
  }
  return total;
}

double dot(const double* x, const double* y, int n) {
  double s = 0.0;
  for (int i = 0; i < n; ++i) s += x[i] * y[i];
  return s;
}

// P_k, y_k, D_k, E_k, q_k, v_k. False when D_k cannot be inverted.
bool level3step(const Pass& pass, const PosteriorInput& input, Level3Posterior& unit, Array<double>& work) {
  const int nb = pass.nbeta, b = pass.b;
  const double* BB = Pass::row(pass.sumBB, unit.k, nb * nb);
  const double* BY = Pass::row(pass.sumBY, unit.k, nb);
  for (std::size_t i = 0; i < square(nb); ++i) unit.P[i] = BB[i] - unit.sums.HB[i];
  for (int i = 0; i < nb; ++i) unit.y[i] = BY[i] - unit.sums.HY[i];

  const double z = unit.z;
  double* D = unit.E.data();
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) D[i * b + j] = z * z * unit.P[i * nb + j] + input.Sb[i * b + j];
  Array<double>& inverse = work;  // b squared, then the work buffer of the inverse
  double* buffer = inverse.data() + square(b);
  if (syminverse(b, D, b, inverse.data(), b, buffer) != 0) return false;
  unit.logdetE = std::log(1.0 / buffer[0]);
  std::copy_n(inverse.data(), square(b), unit.E.data());

  level3weights(pass, unit.k, unit.weights.data());
  level2means(pass, unit.weights.data(), input.gamma, unit.theta.data());
  for (int i = 0; i < b; ++i) unit.q[i] = z * (unit.y[i] - dot(unit.P.data() + i * nb, unit.theta.data(), nb));
  std::copy(unit.theta.begin(), unit.theta.end(), unit.thetastar.begin());
  for (int i = 0; i < b; ++i) {
    unit.v[i] = dot(unit.E.data() + i * b, unit.q.data(), b);
    unit.thetastar[i] += z * unit.v[i];
  }
  return true;
}

// The sum of V_j = C_j^-1 + R_j' E R_j.
void sumposteriorcovariance(const Pass& pass, Level3Posterior& unit) {
  const int p = pass.p, b = pass.b, rows = p * b;
  for (int i = 0; i < p; ++i)
    for (int l = 0; l < p; ++l) {
      double s = 0.0;
      for (int a = 0; a < b; ++a)
        for (int c = 0; c < b; ++c) s += unit.E[a * b + c] * unit.sums.RR[(a * p + i) * rows + c * p + l];
      unit.PP[i * p + l] = unit.sums.Cinv[i * p + l] + unit.z * unit.z * s;
    }
}

// rss, Q and the trace of one level-3 unit; `ua` is the sum of u'a over its units and S that of its units.
void unitscalars(const Pass& pass, Level3Posterior& unit, const double* S, double ua) {
  const int nb = pass.nbeta, b = pass.b, p = pass.p;
  const double* BB = Pass::row(pass.sumBB, unit.k, nb * nb);
  const double* BY = Pass::row(pass.sumBY, unit.k, nb);
  const double YY = pass.sumYY[unit.k];
  const double* thetastar = unit.thetastar.data();
  unit.rss = YY - 2.0 * dot(thetastar, BY, nb) + quadratic(BB, thetastar, nb) - ua - dot(S, unit.UU.data(), p * p);
  unit.Q = YY - unit.sums.YCY - 2.0 * dot(unit.theta.data(), unit.y.data(), nb) +
           quadratic(unit.P.data(), unit.theta.data(), nb) - dot(unit.q.data(), unit.v.data(), b);
  // tr(Z2'Z2 E) - 2 tr(K E) + sum_j tr(Z1'Z1 V_j), the last by n p + tr(E K) - tr(S sum V_j).
  double trace = unit.units * p - dot(S, unit.PP.data(), p * p);
  for (int i = 0; i < b; ++i)
    for (int j = 0; j < b; ++j) trace += unit.z * unit.z * unit.E[i * b + j] * unit.P[i * nb + j];
  unit.trace = trace;
}

// A += W3'(P - z^2 P_.r E P_r.) W3 and c += W3'(y - z^2 P_.r E y_r).
void addgeneralised(const Pass& pass, const Level3Posterior& unit, PosteriorSums& sums, Array<double>& reducedP,
                    Array<double>& reducedy) {
  const int nb = pass.nbeta, b = pass.b;
  const double zz = unit.z * unit.z;
  for (int i = 0; i < nb; ++i) {
    double PE[64];
    Array<double> longrow;
    double* row = PE;
    if (b > 64) {
      longrow.reset(at(b));
      row = longrow.data();
    }
    for (int c = 0; c < b; ++c) {
      double s = 0.0;
      for (int a = 0; a < b; ++a) s += unit.P[i * nb + a] * unit.E[a * b + c];
      row[c] = zz * s;
    }
    for (int j = 0; j < nb; ++j) reducedP[i * nb + j] = unit.P[i * nb + j] - dot(row, unit.P.data() + j * nb, b);
    reducedy[i] = unit.y[i] - dot(row, unit.y.data(), b);
  }
  addsandwichW3(pass, unit.weights.data(), reducedP.data(), sums.A.data());
  addtransposedW3(pass, unit.weights.data(), reducedy.data(), sums.c.data());
}

void addunit(const Pass& pass, const PosteriorInput& input, const Level3Posterior& unit, PosteriorSums& sums) {
  sums.logdetCinv += unit.sums.logdetCinv;
  sums.logdetE += unit.logdetE;
  sums.logdetT += unit.units * unit.logdetT;
  sums.rss += unit.rss;
  sums.Q += unit.Q;
  sums.traceacc += input.sigma2 * unit.trace;
  for (std::size_t i = 0; i < square(pass.p); ++i) {
    sums.PP[i] += unit.PP[i];
    sums.UU[i] += unit.UU[i];
  }
  for (int i = 0; i < pass.b; ++i)
    for (int j = 0; j < pass.b; ++j) {
      sums.sumDinv[i * pass.b + j] += unit.E[i * pass.b + j];
      sums.VV[i * pass.b + j] += unit.v[i] * unit.v[j];
    }
}

void clear(const Pass& pass, PosteriorSums& sums) {
  sums = PosteriorSums{};
  sums.PP.reset(square(pass.p));
  sums.UU.reset(square(pass.p));
  sums.sumDinv.reset(square(pass.b));
  sums.VV.reset(square(pass.b));
  sums.A.reset(square(pass.g));
  sums.c.reset(at(pass.g));
}

// S of one level-3 unit in the heterogeneous stage. False when its taupi cannot be inverted.
bool unitS(const Pass& pass, const PosteriorInput& input, Level3Posterior& unit, double* S, double* work) {
  const double* T = input.hettaupi + static_cast<std::ptrdiff_t>(unit.k) * pass.p * pass.p;
  if (syminverse(pass.p, T, pass.p, S, pass.p, work) == 1) return false;
  unit.logdetT = std::log(work[0]);
  for (std::size_t i = 0; i < square(pass.p); ++i) S[i] *= input.sigma2;
  return true;
}

}  // namespace

PosteriorResult posteriorsweep(Pass& pass, const PosteriorInput& input, PosteriorSums& sums, Level3Visitor visitor) {
  clear(pass, sums);
  const int p = pass.p, b = pass.b, nb = pass.nbeta;
  UnitStore& store = pass.store;
  const SumUnits sumthem = sumunitsof(p, b);
  const MeanUnits meanthem = meanunitsof(p);
  Level3Posterior unit = makeposterior(pass);
  Array<double> S(square(p)), Spacked(packedsize(p));
  Array<double> buffer(packedsize(p) + at(nb * p) + square(p) + 2 * at(p));
  Array<double> work(square(std::max(b, p)) + packedsize(std::max(b, p)) + 3);
  Array<double> reducedP(square(nb)), reducedy(at(nb));
  const auto pack = [&](const double* full) {
    for (int i = 0, packed = 0; i < p; ++i)
      for (int l = 0; l <= i; ++l) Spacked[packed++] = full[i * p + l];
  };
  if (input.hettaupi == nullptr) {
    std::copy_n(input.S, square(p), S.data());
    pack(S.data());
  }

  for (const UnitWindow& window : store.windows) {
    checksignals();
    double* hot = loadwindow(store.hot, window);
    for (int k = window.k0; k < window.k1; ++k) {
      unit.k = k;
      unit.units = pass.n2of[k];
      unit.hot = hot;
      unit.z = pass.scale3[k];
      if (input.hettaupi != nullptr) {
        if (!unitS(pass, input, unit, S.data(), work.data())) return PosteriorResult::badT;
        pack(S.data());
      }
      clearsums(unit.sums);
      buffer.fill(0.0);
      if (!sumthem(store, hot, unit.units, b, Spacked.data(), unit.sums, buffer)) return PosteriorResult::badC;
      mirror(unit.sums.HB.data(), nb);
      mirror(unit.sums.RR.data(), b * p);
      mirror(unit.sums.Cinv.data(), p);
      if (!level3step(pass, input, unit, work)) return PosteriorResult::badD;
      unit.UU.fill(0.0);
      const double ua =
          meanthem(store, hot, unit.units, unit.thetastar.data(), input.keepmeans, unit.UU.data(), buffer);
      mirror(unit.UU.data(), p);
      sumposteriorcovariance(pass, unit);
      unitscalars(pass, unit, S.data(), ua);
      addgeneralised(pass, unit, sums, reducedP, reducedy);
      addunit(pass, input, unit, sums);
      std::copy(unit.E.begin(), unit.E.end(), Pass::row(pass.dinv, k, b * b));
      if (input.keepmeans) {
        std::copy(unit.v.begin(), unit.v.end(), Pass::row(pass.vstar, k, b));
        std::copy(unit.q.begin(), unit.q.end(), Pass::row(pass.vlsq, k, b));
      }
      if (visitor.visit != nullptr) visitor.visit(visitor.state, pass, unit);
      hot += static_cast<std::size_t>(unit.units) * store.hot.stride;
    }
    savewindow(store.hot, window);
  }
  return PosteriorResult::ok;
}

}  // namespace kdr
