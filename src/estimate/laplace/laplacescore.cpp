#include "estimate/laplace/laplacescore.h"

#include <algorithm>
#include <cmath>

#include "estimate/likelihood/unconditional.h"
#include "estimate/linear/usable.h"
#include "estimate/quasi/family.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

namespace {

constexpr double pairweight = 5.0 / 24.0;

// The records of one level-2 unit and their places in the arrays of ScoreWork.
struct UnitRows {
  std::size_t n;
  int npi, c;
  const double *xall, *x, *y;  // n by npi, n by c, [n]
  double *mu, *k2, *a, *b;     // [n]
};

// The symmetric matrix M (c squared) as a lower triangle with doubled off-diagonals, so that
// x' M x = sum_a x_a sum_(b <= a) form_ab x_b.
void makeform(int c, const double* M, double* form) {
  for (int a = 0; a < c; ++a) {
    for (int b = 0; b < a; ++b) form[a * c + b] = M[a * c + b] + M[b * c + a];
    form[a * c + a] = M[a * c + a];
  }
}

// The loops over the records, once per number of random columns; C is 0 when it is only known at run time.
template <int C>
struct Loops {
  static int width(const UnitRows& rows) { return C > 0 ? C : rows.c; }

  static double quadratic(int c, const double* form, const double* x) {
    double sum = 0.0;
    for (int a = 0; a < c; ++a) {
      double row = 0.0;
      for (int b = 0; b <= a; ++b) row += form[a * c + b] * x[b];
      sum += x[a] * row;
    }
    return sum;
  }

  // mu, k2, a of the records; omega += sum_i k3_i a_i x_i. Returns sum_i [k4_i a_i^2 / 8 + k6_i a_i^3 / 48].
  static double linked(const UnitRows& rows, const double* coefficients, const double* form, double* omega,
                       double* loglik) {
    const int c = width(rows);
    const double *xall = rows.xall, *x = rows.x;
    double S = 0.0;
    for (std::size_t i = 0; i < rows.n; ++i, xall += rows.npi, x += c) {
      double eta = 0.0;
      for (int m = 0; m < rows.npi; ++m) eta += xall[m] * coefficients[m];
      const LogitMean mean = logitmean(eta);
      const LogitCumulants k = logitcumulants(mean.mu, mean.variance);
      const double a = quadratic(c, form, x);
      S += a * a * (k.k4 / 8.0 + k.k6 * a / 48.0);
      for (int m = 0; m < c; ++m) omega[m] += k.k3 * a * x[m];
      if (loglik != nullptr) *loglik += rows.y[i] * eta - std::max(eta, 0.0) - std::log1p(mean.small);
      rows.mu[i] = mean.mu;
      rows.k2[i] = mean.variance;
      rows.a[i] = a;
    }
    return S;
  }

  // With h = A_j omega: b_i = x_i'h and N (lower) += sum_i F_i x_i x_i', where
  //   F_i = (5/12) k3_i b_i - k4_i a_i / 4 - k6_i a_i^2 / 16
  // is minus the derivative of S_k by a_i. Sxx (lower) += sum_i w_i x_i x_i', Sxr += sum_i x_i r_i.
  static void moments(const UnitRows& rows, const double* h, double* N, double* Sxx, double* Sxr) {
    const int c = width(rows);
    const double* x = rows.x;
    for (std::size_t i = 0; i < rows.n; ++i, x += c) {
      const LogitCumulants k = logitcumulants(rows.mu[i], rows.k2[i]);
      const double a = rows.a[i], residual = rows.y[i] - rows.mu[i];
      double b = 0.0;
      for (int m = 0; m < c; ++m) b += x[m] * h[m];
      rows.b[i] = b;
      const double F = 2.0 * pairweight * k.k3 * b - a * (k.k4 / 4.0 + k.k6 * a / 16.0);
      for (int m = 0; m < c; ++m) {
        Sxr[m] += residual * x[m];
        const double Fx = F * x[m], wx = k.k2 * x[m];
        for (int l = 0; l <= m; ++l) {
          N[m * c + l] += Fx * x[l];
          Sxx[m * c + l] += wx * x[l];
        }
      }
    }
  }

  // The weight of a record's move in the score, p_i = -k3_i a_i / 2 + D c_i, with
  //   c_i = -k5_i a_i^2 / 8 - k7_i a_i^3 / 48 + (5/12) k4_i a_i b_i - k3_i x_i' form x_i
  // minus the derivative of S_k by eta_i. In place of b_i; omega += sum_i p_i x_i.
  static void weights(const UnitRows& rows, double D, const double* form, double* omega) {
    const int c = width(rows);
    const double* x = rows.x;
    for (std::size_t i = 0; i < rows.n; ++i, x += c) {
      const LogitCumulants k = logitcumulants(rows.mu[i], rows.k2[i]);
      const double a = rows.a[i];
      const double ci = -a * a * (k.k5 / 8.0 + k.k7 * a / 48.0) + 2.0 * pairweight * k.k4 * a * rows.b[i] -
                        k.k3 * quadratic(c, form, x);
      const double p = -0.5 * k.k3 * a + D * ci;
      rows.b[i] = p;
      for (int m = 0; m < c; ++m) omega[m] += p * x[m];
    }
  }

  // xi += sum_i (r_i + p_i - w_i x_i' zeta) x_i over all level-1 coefficients.
  static void fixedpart(const UnitRows& rows, const double* zeta, double* xi) {
    const int c = width(rows);
    const double *xall = rows.xall, *x = rows.x;
    for (std::size_t i = 0; i < rows.n; ++i, xall += rows.npi, x += c) {
      double moved = 0.0;
      for (int m = 0; m < c; ++m) moved += x[m] * zeta[m];
      const double factor = rows.y[i] - rows.mu[i] + rows.b[i] - rows.k2[i] * moved;
      for (int m = 0; m < rows.npi; ++m) xi[m] += factor * xall[m];
    }
  }
};

struct LoopSet {
  double (*linked)(const UnitRows&, const double*, const double*, double*, double*);
  void (*moments)(const UnitRows&, const double*, double*, double*, double*);
  void (*weights)(const UnitRows&, double, const double*, double*);
  void (*fixedpart)(const UnitRows&, const double*, double*);
};
template <int C>
constexpr LoopSet loopset{Loops<C>::linked, Loops<C>::moments, Loops<C>::weights, Loops<C>::fixedpart};

const LoopSet& loopsof(int c) {
  static constexpr LoopSet sets[] = {loopset<0>, loopset<1>, loopset<2>, loopset<3>, loopset<4>};
  return sets[c <= 4 ? c : 0];
}

// A level-3 unit and what is known of it, by the places of its level-2 units.
struct Walk {
  const EngineData& data;
  const LaplaceModes& modes;
  const Level3Records& unit;
  ScoreWork& work;
  int q, r, c;
  const LoopSet& loops;
  const double* x;

  Walk(const EngineData& alldata, const Parameters& parameters, const LaplaceModes& allmodes,
       const Level3Records& theunit, ScoreWork& thework)
      : data(alldata),
        modes(allmodes),
        unit(theunit),
        work(thework),
        q(parameters.q),
        r(parameters.r),
        c(thework.columns.count),
        loops(loopsof(c)),
        x(randompart(data, unit, work.columns, work.x)) {
    for (Array<double>* perrecord : {&work.mu, &work.k2, &work.a, &work.b})
      if (perrecord->size() < unit.y.size()) perrecord->reset(unit.y.size());
    level2means(*data.design, unit.w3.data(), parameters.gamma.data(), work.theta.data());
  }

  [[nodiscard]] std::size_t place(int j) const { return unit.firstunit + at(j); }
  [[nodiscard]] const double* u(int j) const { return modes.u.data() + place(j) * at(q); }
  [[nodiscard]] const double* C2(int j) const { return modes.C2.data() + place(j) * square(q); }
  [[nodiscard]] const double* Q(int j) const { return modes.Q.data() + place(j) * at(r) * at(q); }
  [[nodiscard]] const double* v() const { return modes.v.data() + at(unit.k) * at(r); }
  [[nodiscard]] const double* C3() const { return modes.C3.data() + at(unit.k) * square(r); }
  [[nodiscard]] const double* w2(int j) const { return unit.w2.data() + at(j) * at(data.nbeta); }

  [[nodiscard]] UnitRows rows(int j) const {
    const std::size_t first = unit.start[at(j)];
    return {unit.start[at(j) + 1] - first,
            data.npi,
            c,
            unit.x.data() + first * at(data.npi),
            x + first * at(c),
            unit.y.data() + first,
            work.mu.data() + first,
            work.k2.data() + first,
            work.a.data() + first,
            work.b.data() + first};
  }

  // L (r by c): e*_i = L x_i.
  void makeL(int j, double* L) const {
    std::fill_n(L, r * c, 0.0);
    for (int m = 0; m < r; ++m) {
      L[m * c + work.columns.e[at(m)]] = w2(j)[m];
      for (int a = 0; a < q; ++a) L[m * c + work.columns.d[at(a)]] -= Q(j)[m * q + a];
    }
  }
  // A (c squared) = L' C3 L + C2 in the places of d.
  void makeA(int j, const double* L, double* A) const {
    mulAB(work.rc.data(), C3(), L, r, c, r);
    mulAtB(A, L, work.rc.data(), c, c, r);
    for (int a = 0; a < q; ++a)
      for (int b = 0; b < q; ++b) A[work.columns.d[at(a)] * c + work.columns.d[at(b)]] += C2(j)[a * q + b];
  }

  // Means, variances and a_i of the records of unit j; omega = sum_i k3_i a_i x_i and h = A omega. Returns the unit's
  // share of S_k.
  double correction(int j, const double* A, double* loglik) const {
    level1coefficients(data, unit, j, work.theta.data(), v(), r, u(j), q, work.coefficients.data());
    makeform(c, A, work.form.data());
    work.omega.fill(0.0);
    double S = loops.linked(rows(j), work.coefficients.data(), work.form.data(), work.omega.data(), loglik);
    mulAB(work.h.data(), A, work.omega.data(), c, 1, c);
    for (int m = 0; m < c; ++m) S -= pairweight * work.omega[at(m)] * work.h[at(m)];
    return S;
  }
};

// Adds T_aa / (V + T)_aa to each sum.
void addreliabilities(int n, const double* T, const double* V, double* sums) {
  for (int a = 0; a < n; ++a) {
    const double t = T[a * n + a];
    sums[a] += t / (V[a * n + a] + t);
  }
}

// The sums of unit j that need nothing of the others: N_j, W, rho_j, g, G; and its reliabilities. With the moments
//   N_j = sum_i F_i x_i x_i' + (5/24) omega omega'
// minus the derivative of S_k by the elements of A_j is N_j, and by C3_k it is W = sum_j L_j N_j L_j'.
void unitmoments(const Walk& walk, int j, const Parameters& parameters, UnitReliability& reliability) {
  ScoreWork& work = walk.work;
  const int q = walk.q, r = walk.r, c = walk.c;
  double* N = work.N.data() + at(j) * square(c);
  const double* L = work.L.data() + at(j) * at(r) * at(c);
  double* rho = work.rho.data() + at(j) * at(q);
  std::fill_n(N, c * c, 0.0);
  work.Sxx.fill(0.0);
  work.Sxr.fill(0.0);
  walk.loops.moments(walk.rows(j), work.h.data(), N, work.Sxx.data(), work.Sxr.data());
  mirror(c, N);
  mirror(c, work.Sxx.data());
  for (int a = 0; a < c; ++a)
    for (int b = 0; b < c; ++b) N[a * c + b] += pairweight * work.omega[at(a)] * work.omega[at(b)];
  mulAB(work.rc.data(), L, N, r, c, c);
  addABt(work.W.data(), work.rc.data(), L, r, r, c);

  for (int a = 0; a < q; ++a) rho[a] = work.Sxr[at(work.columns.d[at(a)])];
  for (int m = 0; m < r; ++m) work.g[at(m)] += walk.w2(j)[m] * work.Sxr[at(work.columns.e[at(m)])];

  // G += u_j u_j' + P_j, P_j = C2_j + Q_j' C3_k Q_j
  addABt(work.G.data(), walk.u(j), walk.u(j), q, q, 1);
  addunconditional(work.G.data(), q, r, walk.C2(j), walk.Q(j), walk.C3(), work.qr.data());

  for (int a = 0; a < q; ++a)
    for (int b = 0; b < q; ++b)
      work.qq[at(a * q + b)] = work.Sxx[at(work.columns.d[at(a)] * c + work.columns.d[at(b)])];
  if (invertcovariance(work.qq.data(), q, work.inverse.data())) {
    addreliabilities(q, parameters.taupi.data(), work.inverse.data(), reliability.level2);
    ++reliability.count2;
  }
}

// The weights p_i of the records of unit j, and their sums: pe += sum_i p_i e*_i, M2 += C2 (sum_i p_i d_i) rho', and
//   Y += C2 Ndd C2 - C2 Nde C3 Q - (C2 Nde C3 Q)' + Q' (C3 W C3) Q,   Ndd = sum over d d', Nde over d e*' as in N_j
// which is minus the derivative of S_k by taupi through taupi^-1, taupi^-1 to both sides left out. A record moves A_il
// of its own unit through A_j and that of the other units through e*.
void unitweights(const Walk& walk, int j, double D, const double* C3WC3) {
  ScoreWork& work = walk.work;
  const int q = walk.q, r = walk.r, c = walk.c;
  const double* L = work.L.data() + at(j) * at(r) * at(c);
  double* A = work.A.data() + at(j) * square(c);
  const double* N = work.N.data() + at(j) * square(c);
  double* cp = work.cp.data() + at(j) * at(q);

  // form of A N A + L' C3 (W - L N L') C3 L
  mulAB(work.Sxx.data(), A, N, c, c, c);
  mulAB(work.h.data(), work.Sxx.data(), A, c, c, c);
  mulAB(work.rc.data(), L, N, r, c, c);  // L N
  mulABt(work.rr.data(), work.rc.data(), L, r, r, c);
  for (std::size_t i = 0; i < square(r); ++i) work.rr[i] = work.W[i] - work.rr[i];
  mulAB(work.rc2.data(), walk.C3(), L, r, c, r);  // C3 L
  mulAB(work.rc3.data(), work.rr.data(), work.rc2.data(), r, c, r);
  addAtB(work.h.data(), work.rc2.data(), work.rc3.data(), c, c, r);
  makeform(c, work.h.data(), work.form.data());
  work.omega.fill(0.0);
  walk.loops.weights(walk.rows(j), D, work.form.data(), work.omega.data());

  addAB(work.pe.data(), L, work.omega.data(), r, 1, c);
  for (int a = 0; a < q; ++a) work.qq[at(a)] = work.omega[at(work.columns.d[at(a)])];
  mulAB(cp, walk.C2(j), work.qq.data(), q, 1, q);
  addABt(work.M2.data(), cp, work.rho.data() + at(j) * at(q), q, q, 1);

  for (int a = 0; a < q; ++a)
    for (int b = 0; b < q; ++b) work.qq[at(a * q + b)] = N[work.columns.d[at(a)] * c + work.columns.d[at(b)]];
  mulAB(work.qq2.data(), walk.C2(j), work.qq.data(), q, q, q);
  addAB(work.Y.data(), work.qq2.data(), walk.C2(j), q, q, q);
  // qr (q by r) = Nde, then C2 Nde C3 Q
  for (int a = 0; a < q; ++a)
    for (int m = 0; m < r; ++m) work.qr[at(a * r + m)] = work.rc[at(m * c + work.columns.d[at(a)])];
  mulAB(work.qr2.data(), walk.C2(j), work.qr.data(), q, r, q);
  mulAB(work.qr.data(), work.qr2.data(), walk.C3(), q, r, r);
  mulAB(work.qq.data(), work.qr.data(), walk.Q(j), q, q, r);
  for (int a = 0; a < q; ++a)
    for (int b = 0; b < q; ++b) work.Y[at(a * q + b)] -= work.qq[at(a * q + b)] + work.qq[at(b * q + a)];
  mulAB(work.qr.data(), C3WC3, walk.Q(j), r, q, r);
  addAtB(work.Y.data(), walk.Q(j), work.qr.data(), q, q, r);
}

// With z = C3 pe: M2 -= (Q' z) rho', and the fixed part of unit j in bsum.
void unitfixedpart(const Walk& walk, int j) {
  ScoreWork& work = walk.work;
  const int q = walk.q, r = walk.r, c = walk.c;
  const double* L = work.L.data() + at(j) * at(r) * at(c);
  const double* cp = work.cp.data() + at(j) * at(q);
  mulAtB(work.qq.data(), walk.Q(j), work.z.data(), q, 1, r);
  for (int a = 0; a < q; ++a)
    for (int b = 0; b < q; ++b) work.M2[at(a * q + b)] -= work.qq[at(a)] * work.rho[at(j * q + b)];

  // zeta = L' z + C2 (sum_i p_i d_i) in the places of d
  mulAtB(work.omega.data(), L, work.z.data(), c, 1, r);
  for (int a = 0; a < q; ++a) work.omega[at(work.columns.d[at(a)])] += cp[a];
  work.xi.fill(0.0);
  walk.loops.fixedpart(walk.rows(j), work.omega.data(), work.xi.data());
  addtransposedW2(*walk.data.design, walk.w2(j), work.xi.data(), work.bsum.data());
}

// The sums of all level-2 units: those of unitmoments, then D = 1 / (1 - S_k), rr2 = C3 W C3 and the sums of
// unitweights, z = C3 pe and the sums of unitfixedpart. False, with D = 0, when 1 - S_k is not above 0.
bool unitsums(const Walk& walk, const Parameters& parameters, UnitReliability& reliability, double& D) {
  ScoreWork& work = walk.work;
  const int q = walk.q, r = walk.r, c = walk.c, units = walk.unit.units;
  const auto room = [&](Array<double>& perunit, std::size_t width) {
    if (perunit.size() < at(units) * width) perunit.reset(at(units) * width);
  };
  room(work.L, at(r) * at(c));
  room(work.A, square(c));
  room(work.N, square(c));
  room(work.rho, at(q));
  room(work.cp, at(q));
  for (Array<double>* sum : {&work.W, &work.G, &work.M2, &work.Y, &work.bsum, &work.g, &work.pe}) sum->fill(0.0);

  double S = 0.0;
  for (int j = 0; j < units; ++j) {
    double* L = work.L.data() + at(j) * at(r) * at(c);
    double* A = work.A.data() + at(j) * square(c);
    walk.makeL(j, L);
    walk.makeA(j, L, A);
    S += walk.correction(j, A, nullptr);
    unitmoments(walk, j, parameters, reliability);
  }
  const bool defined = 1.0 - S > 0.0;
  D = defined ? 1.0 / (1.0 - S) : 0.0;

  mulAB(work.rr.data(), walk.C3(), work.W.data(), r, r, r);
  mulAB(work.rr2.data(), work.rr.data(), walk.C3(), r, r, r);
  for (int j = 0; j < units; ++j) unitweights(walk, j, D, work.rr2.data());
  mulAB(work.z.data(), walk.C3(), work.pe.data(), r, 1, r);
  for (int j = 0; j < units; ++j) unitfixedpart(walk, j);
  return defined;
}

// Adds the unit's own reliabilities, where V = (H3 - taubeta^-1)^-1 is a covariance.
void unitreliability(const Walk& walk, const Parameters& parameters, const TauInverses& inverses,
                     UnitReliability& reliability) {
  ScoreWork& work = walk.work;
  const int r = walk.r;
  const double* H3 = walk.modes.H3.data() + at(walk.unit.k) * square(r);
  for (std::size_t i = 0; i < square(r); ++i) work.rr[i] = H3[i] - inverses.Kb[i];
  if (invertsymmetric(r, work.rr.data(), work.inverse.data()).result != 1 &&
      positivecovariance(work.inverse.data(), r)) {
    addreliabilities(r, parameters.taubeta.data(), work.inverse.data(), reliability.level3);
    ++reliability.count3;
  }
}

// score (n(n+1)/2) += D' vec(R),  R = (1/2) K (G - J T) K + K M + D K Y K   (n by n)
void tauscore(int n, const double* K, const double* T, const double* G, double J, const double* M, const double* Y,
              double D, double* R, double* room, double* score) {
  for (int i = 0; i < n * n; ++i) R[i] = 0.5 * (G[i] - J * T[i]) + D * Y[i];
  mulAB(room, R, K, n, n, n);
  for (int i = 0; i < n * n; ++i) room[i] += M[i];
  mulAB(R, K, room, n, n, n);
  addduplicated(score, R, n);
}

}  // namespace

ScoreWork makescorework(const EngineData& data, int q, int r) {
  ScoreWork work;
  work.columns = randomcolumns(data, q, r);
  const std::size_t c = at(work.columns.count), nq = at(q), nr = at(r);
  work.theta.reset(at(data.nbeta));
  work.coefficients.reset(at(data.npi));
  for (Array<double>* matrix : {&work.form, &work.h, &work.Sxx}) matrix->reset(c * c);
  for (Array<double>* vector : {&work.omega, &work.Sxr}) vector->reset(c);
  work.xi.reset(at(data.npi));
  for (Array<double>* matrix : {&work.W, &work.rr, &work.rr2, &work.rr3, &work.rr4}) matrix->reset(nr * nr);
  for (Array<double>* matrix : {&work.G, &work.M2, &work.Y, &work.qq, &work.qq2}) matrix->reset(nq * nq);
  work.bsum.reset(at(data.nbeta));
  for (Array<double>* vector : {&work.g, &work.pe, &work.z}) vector->reset(nr);
  for (Array<double>* matrix : {&work.rc, &work.rc2, &work.rc3}) matrix->reset(nr * c);
  for (Array<double>* matrix : {&work.qr, &work.qr2}) matrix->reset(nq * nr);
  const std::size_t most = std::max(nq, nr);
  work.inverse.reset(most * most);
  return work;
}

UnitLikelihood unitlikelihood(const EngineData& data, const Parameters& parameters, const LaplaceModes& modes,
                              const Level3Records& unit, ScoreWork& work) {
  const Walk walk(data, parameters, modes, unit, work);
  if (work.L.empty()) {
    work.L.reset(at(walk.r) * at(walk.c));
    work.A.reset(square(walk.c));
  }
  UnitLikelihood sums;
  for (int j = 0; j < unit.units; ++j) {
    walk.makeL(j, work.L.data());
    walk.makeA(j, work.L.data(), work.A.data());
    sums.S += walk.correction(j, work.A.data(), &sums.loglik);
  }
  return sums;
}

bool unitscore(const EngineData& data, const Parameters& parameters, const TauInverses& inverses,
               const LaplaceModes& modes, const Level3Records& unit, ScoreWork& work, double* score,
               UnitReliability& reliability) {
  const Walk walk(data, parameters, modes, unit, work);
  const int q = walk.q, r = walk.r;
  double D = 0.0;
  const bool defined = unitsums(walk, parameters, reliability, D);

  std::fill_n(score, parameters.count(), 0.0);
  tauscore(q, inverses.Kp.data(), parameters.taupi.data(), work.G.data(), unit.units, work.M2.data(), work.Y.data(), D,
           work.qq.data(), work.qq2.data(), score);
  double* score3 = score + parameters.ntaupi();
  // of level 3: v v' + C3 for G, z g' for M, C3 W C3 for Y
  Array<double>& G3 = work.W;
  std::copy_n(walk.C3(), square(r), G3.data());
  addABt(G3.data(), walk.v(), walk.v(), r, r, 1);
  mulABt(work.rr.data(), work.z.data(), work.g.data(), r, r, 1);
  tauscore(r, inverses.Kb.data(), parameters.taubeta.data(), G3.data(), 1.0, work.rr.data(), work.rr2.data(), D,
           work.rr3.data(), work.rr4.data(), score3);
  double* scoregamma = score3 + parameters.ntaubeta();
  addtransposedW3(*data.design, unit.w3.data(), work.bsum.data(), scoregamma);
  unitreliability(walk, parameters, inverses, reliability);
  return defined;
}

}  // namespace kdr
