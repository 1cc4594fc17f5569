#include "estimate/linear/startingvalues.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "estimate/linear/fixtau.h"
#include "estimate/linear/point.h"
#include "estimate/linear/restriction.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

namespace {

// Work of the three sweeps. Matrices are full.
struct StartWork {
  Array<double> weights, theta;     // W3_k, theta = W3_k gamma
  Array<double> B, E, G, Ginverse;  // b squared
  Array<double> residual;           // [b] Z2'Y - Z2'M gamma of the level-3 unit
  Array<double> v, h;               // [b]
  Array<double> thetastar;          // [nbeta] theta + z v
  Array<double> Z1Z1, Pj;           // p squared
  Array<double> a, u;               // [p]
  Array<double> R;                  // b by p
  Array<double> I2, U2;             // p squared: sums of (Z1'Z1)^-1 and of u u'
  // Per level-3 unit: whether it is usable and the inverse of Z2'Z2; then K = sum R Pj R' and h = sum R u of the second
  // round.
  std::vector<bool> usable3;
  UnitTable<double> Z2Z2inv, K, h3;
};

StartWork makework(const Pass& pass) {
  StartWork w;
  const auto b = at(pass.b), p = at(pass.p), nb = at(pass.nbeta);
  w.weights.reset(pass.design.owner3.size());
  for (Array<double>* x : {&w.theta, &w.thetastar}) x->reset(nb);
  for (Array<double>* x : {&w.B, &w.E, &w.G, &w.Ginverse}) x->reset(b * b);
  for (Array<double>* x : {&w.residual, &w.v, &w.h}) x->reset(b);
  for (Array<double>* x : {&w.Z1Z1, &w.Pj, &w.I2, &w.U2}) x->reset(p * p);
  for (Array<double>* x : {&w.a, &w.u}) x->reset(p);
  w.R.reset(b * p);
  return w;
}

// B = Z2'Z2, theta and Z2'Y - Z2'M gamma of level-3 unit k, gamma = gammahat.
void level3residual(const Pass& pass, int k, StartWork& w) {
  const int nb = pass.nbeta, b = pass.b;
  const double z = pass.scale3[k];
  const double* BB = pass.sumBB.row(k);
  const double* BY = pass.sumBY.row(k);
  level3weights(pass, k, w.weights.data());
  level2means(pass.design, w.weights.data(), pass.est.gammahat.data(), w.theta.data());
  for (int i = 0; i < b; ++i) {
    w.residual[i] = BY[i];
    for (int m = 0; m < nb; ++m) w.residual[i] -= BB[i * nb + m] * w.theta[m];
    w.residual[i] *= z;
    for (int j = 0; j < b; ++j) w.B[i * b + j] = z * z * BB[i * nb + j];
  }
}

void addlevel3effect(const Pass& pass, int k, StartWork& w) {
  addlevel3effects(pass, k, w.v.data(), w.theta.data(), w.thetastar.data());
}

// R = Z2'Z1 of a unit, b by p.
void unitZ2Z1(const Pass& pass, int k, const double* hot, Array<double>& R) {
  const double* BZ1 = hot + pass.store.atBZ1;
  for (std::size_t i = 0; i < R.size(); ++i) R[i] = pass.scale3[k] * BZ1[i];
}

// sum += x x', x of n.
void addouter(Array<double>& sum, const Array<double>& x) {
  const std::size_t n = x.size();
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) sum[i * n + j] += x[i] * x[j];
}

void addto(Array<double>& sum, const Array<double>& x) {
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += x[i];
}

// What the first sweep gives.
struct FirstMoments {
  Array<double> V2;  // b squared, sum of v v' over the usable level-3 units
  double S;          // residual sum of squares
};

// A level-3 cross-product that a least-squares fit can stand on; its inverse goes to w.E.
bool usablelevel3(const Pass& pass, StartWork& w) {
  return invertcrossproduct(w.B.data(), pass.b, w.E.data(), worstunitcondition * pass.b);
}

// First sweep: least-squares residuals of both levels, and Z2Z2inv.
FirstMoments firstsweep(Pass& pass, StartWork& w) {
  const int b = pass.b, p = pass.p, nb = pass.nbeta;
  FirstMoments first{Array<double>(at(b) * at(b)), 0.0};
  bool usable3 = false;
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3residual(pass, k, w);
        const double* BB = pass.sumBB.row(k);
        const double* BY = pass.sumBY.row(k);
        // (Y - M g)'(Y - M g)
        first.S += pass.sumYY[k];
        for (int i = 0; i < nb; ++i) {
          first.S -= 2.0 * w.theta[i] * BY[i];
          for (int j = 0; j < nb; ++j) first.S += w.theta[i] * BB[i * nb + j] * w.theta[j];
        }
        usable3 = usablelevel3(pass, w);
        w.usable3[at(k)] = usable3;
        if (!usable3) {
          --pass.nusable3;
          return;
        }
        std::copy(w.E.begin(), w.E.end(), w.Z2Z2inv.row(k));
        mulAB(w.v.data(), w.E.data(), w.residual.data(), b, 1, b);
        addlevel3effect(pass, k, w);
        addouter(first.V2, w.v);
        // v'Z2'Z2 v - 2 v'(Z2'Y - Z2'M g); the part with the level-2 residuals is added unit by unit
        for (int i = 0; i < b; ++i)
          first.S += w.v[i] * (dot(w.v.data(), w.B.data() + i * b, at(b)) - 2.0 * w.residual[i]);
      },
      [&](int, std::size_t, const double* hot, const double* cold) {
        if (!usable3 || !usableunit(pass.store, cold)) {
          --pass.nusable2;
          pass.nusable1 -= static_cast<int>(cold[0]);
          return;
        }
        unpack(p, cold + pass.store.atinverse, w.Pj.data());
        addto(w.I2, w.Pj);
        residualproduct(pass.store, hot, w.thetastar.data(), w.a.data());
        mulAB(w.u.data(), w.Pj.data(), w.a.data(), p, 1, p);
        addouter(w.U2, w.u);
        // u'Z1'Z1 u - 2 u'(Z1'Y - Z1'M g - Z1'Z2 v), and Z1'Z1 u is the right side
        first.S -= dot(w.u.data(), w.a.data(), at(p));
      },
      [](int) {}, reading(pass.store.hot), reading(pass.store.cold));
  return first;
}

Failure virtuallyzero() {
  return failedboth("Sigma_squared(0) is virtually zero. Please examine your level-1 model\n");
}

// A residual variance of nearly zero, for itself and against what rounding leaves of the outcome's squares.
bool vanishes(const Pass& pass, double sigma2) {
  constexpr double leastsigma2 = 1.0e-8, rounding = 1.0e-11;
  return sigma2 <= leastsigma2 && sigma2 <= rounding * pass.totalYY / pass.nunits1;
}

// Records of the usable units beyond one for each of their random effects.
int sparerecords(const Pass& pass) { return pass.nusable1 - pass.nusable2 * pass.p; }

Failure startsigma2(const Pass& pass, double S, double& sigma2) {
  sigma2 = pass.fixsigma2;
  if (sigma2 == 0.0) {
    if (pass.nusable2 < 1 || pass.nusable1 < 1) return failed(13, "1");
    const int df = sparerecords(pass);
    if (df < 1) return failed(16);
    sigma2 = S / df;
  }
  if (pass.model().weighted) {
    if (sigma2 <= 0.0) sigma2 = 1.0;
    return {};
  }
  return vanishes(pass, sigma2) ? virtuallyzero() : Failure{};
}

// T = U2/n - sigma2 I2/n.
void momenttaupi(const Pass& pass, const StartWork& w, double* T) {
  for (std::size_t i = 0; i < w.U2.size(); ++i)
    T[i] = w.U2[i] / pass.nusable2 - pass.est.sigma2 * w.I2[i] / pass.nusable2;
}

// A first value of a tau: held and equal elements, and the automatic repair.
Failure settlefirst(Pass& pass, Tau which, const Array<double>& moments) {
  const TauHeld held = pass.model().restrictions.of(which);
  const int n = pass.order(which);
  double* t = pass.est.tau(which).data();
  Array<double> inverse(square(n));
  if (held.fixed != nullptr) applyfixed(t, n, *held.fixed);
  for (;;) {
    if (!usablecovariance(t, n))
      if (Failure failure = fixtau(pass, which, moments, FixTau::automatic)) return failure;
    if (held.equal == nullptr) return {};
    applyequal(n, t, *held.equal);
    if (invertsymmetric(n, t, inverse.data()).result == 0) return {};
  }
}

Failure firsttaupi(Pass& pass, StartWork& w) {
  const int p = pass.p;
  double* T = pass.est.taupi.data();
  if (pass.nusable2 < 1 || pass.nusable3 < 1) return failed(13, "1");
  momenttaupi(pass, w, T);
  if (p == 1 && T[0] < 0.0) T[0] = 1.0;
  return settlefirst(pass, Tau::pi, w.U2);
}

// taubeta from the residuals of the first sweep, less what tau(pi) and sigma2 put into them.
Failure firsttaubeta(Pass& pass, StartWork& w, const FirstMoments& first) {
  const int b = pass.b, p = pass.p;
  Array<double> R(at(b) * at(b)), ER(at(b) * at(p)), ERT(at(b) * at(p));
  const auto usable3 = [&](int k) { return w.usable3[at(k)]; };
  sweepunits(
      pass.n2of,
      [&](int k) {
        if (!usable3(k)) return;
        const double* E = w.Z2Z2inv.row(k);
        for (std::size_t i = 0; i < R.size(); ++i) R[i] += pass.est.sigma2 * E[i];
      },
      [&](int k, std::size_t, const double* hot) {
        if (!usable3(k)) return;
        unitZ2Z1(pass, k, hot, w.R);
        mulAB(ER.data(), w.Z2Z2inv.row(k), w.R.data(), b, p, b);
        mulAB(ERT.data(), ER.data(), pass.est.taupi.data(), b, p, p);
        addABt(R.data(), ERT.data(), ER.data(), b, b, p);
      },
      [](int) {}, reading(pass.store.hot));
  if (storefailure(pass.store)) return storefailure(pass.store);
  if (pass.nusable3 < 1) return failed(2, "2");
  double* L = pass.est.taubeta.data();
  for (std::size_t i = 0; i < R.size(); ++i) L[i] = first.V2[i] / pass.nusable3 - R[i] / pass.nusable3;
  return settlefirst(pass, Tau::beta, first.V2);
}

// Second round, first sweep: level-2 residuals given the shrunken level-3 ones. Fills K and h3 and leaves the residuals
// in u* of the hot records.
void residualsweep(Pass& pass, StartWork& w, const Array<double>& Q) {
  const int b = pass.b, p = pass.p;
  bool failed = false;
  Array<double> K(at(b) * at(b)), RP(at(b) * at(p));
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3residual(pass, k, w);
        for (std::size_t i = 0; i < Q.size(); ++i) w.G[i] = w.B[i] + Q[i];
        failed = invertsymmetric(b, w.G.data(), w.Ginverse.data()).result == 1;
        if (!failed) {
          mulAB(w.v.data(), w.Ginverse.data(), w.residual.data(), b, 1, b);
          addlevel3effect(pass, k, w);
        }
        w.h.fill(0.0);
        K.fill(0.0);
      },
      [&](int k, std::size_t, double* hot, const double* cold) {
        double* ustar = hot + pass.store.atustar;
        if (failed || !usableunit(pass.store, cold)) {
          std::fill_n(ustar, p, absent);
          return;
        }
        unpack(p, cold + pass.store.atinverse, w.Pj.data());
        unitZ2Z1(pass, k, hot, w.R);
        mulAB(RP.data(), w.R.data(), w.Pj.data(), b, p, p);
        addABt(K.data(), RP.data(), w.R.data(), b, b, p);
        residualproduct(pass.store, hot, w.thetastar.data(), w.a.data());
        mulAB(ustar, w.Pj.data(), w.a.data(), p, 1, p);
        addAB(w.h.data(), w.R.data(), ustar, b, 1, p);
      },
      [&](int k) {
        std::copy(w.h.begin(), w.h.end(), w.h3.row(k));
        std::copy(K.begin(), K.end(), w.K.row(k));
      },
      changing(pass.store.hot), reading(pass.store.cold));
}

// Second round, second sweep: the moments of taupi with the level-3 variation taken out.
void momentsweep(Pass& pass, StartWork& w, const Array<double>& Q) {
  const int b = pass.b, p = pass.p;
  bool failed = false;
  w.I2.fill(0.0);
  w.U2.fill(0.0);
  Array<double> Rj(at(p) * at(b)), RG(at(p) * at(b)), x(at(p));
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3residual(pass, k, w);
        const double* K = w.K.row(k);
        const double* h = w.h3.row(k);
        for (std::size_t i = 0; i < Q.size(); ++i) w.G[i] = w.B[i] + Q[i] - K[i];
        failed = invertsymmetric(b, w.G.data(), w.Ginverse.data()).result == 1 || (b > 0 && h[0] == 0.0);
        if (!failed) mulAB(w.v.data(), w.Ginverse.data(), h, b, 1, b);
      },
      [&](int k, std::size_t, const double* hot, const double* cold) {
        if (failed || !usableunit(pass.store, cold)) return;
        const double* ustar = hot + pass.store.atustar;
        unpack(p, cold + pass.store.atinverse, w.Pj.data());
        unitZ2Z1(pass, k, hot, w.R);
        mulABt(Rj.data(), w.Pj.data(), w.R.data(), p, b, p);
        if (p > 0 && !isabsent(ustar[0])) {
          std::copy_n(ustar, p, x.data());
          addAB(x.data(), Rj.data(), w.v.data(), p, 1, b);
          addouter(w.U2, x);
        }
        mulAB(RG.data(), Rj.data(), w.Ginverse.data(), p, b, b);
        addABt(w.Pj.data(), RG.data(), Rj.data(), p, p, b);
        addto(w.I2, w.Pj);
      },
      [](int) {}, reading(pass.store.hot), reading(pass.store.cold));
}

// tau := the share of the variance that one random effect gets, by the mean square of its predictor.
void sharetau(double variance, const Array<double>& meansquare, Array<double>& tau) {
  const int n = static_cast<int>(meansquare.size());
  tau.fill(0.0);
  for (int i = 0; i < n; ++i) tau[i * n + i] = variance / n / (meansquare[i] > 0.0 ? meansquare[i] : 1.0);
}

// Half of a variance to sigma2, a quarter to the random effects of each level.
void sharevariance(Pass& pass, double variance, Estimates& est) {
  const int p = pass.p, b = pass.b, nb = pass.nbeta;
  est.sigma2 = pass.fixsigma2 != 0.0 ? pass.fixsigma2 : 0.5 * variance;
  Array<double> mean1(at(p)), mean2(at(b));
  sweepunits(
      pass.n2of,
      [&](int k) {
        for (int i = 0; i < b; ++i)
          mean2[i] += pass.scale3[k] * pass.scale3[k] * pass.sumBB.row(k)[i * nb + i] / pass.nunits1;
      },
      [&](int, std::size_t, const double* hot) {
        eachelement(p, [&](int e, int i, int j) {
          if (i == j) mean1[i] += hot[e] / pass.nunits1;
        });
      },
      [](int) {}, reading(pass.store.hot));
  sharetau(0.25 * variance, mean1, est.taupi);
  sharetau(0.25 * variance, mean2, est.taubeta);
  applyheld(pass.model(), Tau::beta, est);
}

// A start by shares of the residual variance of least squares.
Failure startbyshares(Pass& pass, StartMoments& moments) {
  double rss = pass.totalYY;
  for (int i = 0; i < pass.g; ++i) rss -= pass.est.gammahat[i] * pass.gramMY[i];
  const double variance = rss / pass.nunits1;
  if (vanishes(pass, variance)) return virtuallyzero();
  sharevariance(pass, variance, pass.est);
  moments = {pass.est.taupi.copy(), pass.est.taubeta.copy(), true};
  return {};
}

// Q = sigma2 T^-1, T of order n.
Array<double> scaledinverse(const Array<double>& T, int n, double sigma2) {
  Array<double> Q(square(n));
  invertsymmetric(n, T.data(), Q.data());
  for (double& q : Q) q *= sigma2;
  return Q;
}

}  // namespace

bool identified(Pass& pass) {
  const int p = pass.p, b = pass.b, nt = static_cast<int>(packedsize(p)), NT = nt + static_cast<int>(packedsize(b)) + 1;
  StartWork w = makework(pass);
  Array<double> gram(square(NT));
  const auto add = [&](int x, int y, double value) { gram[x * NT + y] += value; };
  const auto addown = [&](const double* M, int n, int first) {
    eachelement(n, [&](int x, int i, int j) {
      eachelement(n, [&](int y, int k, int l) { add(first + x, first + y, duplicatedproduct(M, n, i, j, k, l)); });
      add(NT - 1, first + x, (i == j ? 1.0 : 2.0) * M[i * n + j]);
    });
  };
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3residual(pass, k, w);
        addown(w.B.data(), b, nt);
        add(NT - 1, NT - 1, pass.n1of[k]);
      },
      [&](int k, std::size_t, const double* hot) {
        unpack(p, hot, w.Z1Z1.data());
        addown(w.Z1Z1.data(), p, 0);
        unitZ2Z1(pass, k, hot, w.R);
        eachelement(b, [&](int x, int i, int j) {
          eachelement(p, [&](int y, int m, int l) { add(nt + x, y, duplicatedproduct(w.R.data(), p, i, j, m, l)); });
        });
      },
      [](int) {}, reading(pass.store.hot));
  mirror(NT, gram.data());
  const Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  Array<double> reduced(square(restriction.nfree));
  reduceinformation(restriction, gram.data(), NT, reduced.data());
  return restriction.nfree == 0 || !collinear(reduced.data(), restriction.nfree);
}

std::optional<Estimates> sharedstart(Pass& pass) {
  const int g = pass.g;
  Estimates est = pass.est.copy();
  double rss = pass.totalYY;
  for (int i = 0; i < g; ++i)
    rss += est.gammahat[i] * (dot(pass.gramMM.data() + i * g, est.gammahat.data(), at(g)) - 2.0 * pass.gramMY[i]);
  sharevariance(pass, rss / pass.nunits1, est);
  applyheld(pass.model(), Tau::pi, est);
  if (usableestimates(pass, est)) return est;
  return std::nullopt;
}

Failure leastsquarestart(Pass& pass, StartMoments& moments) {
  StartWork w = makework(pass);
  const std::size_t units3 = pass.n2of.size();
  w.usable3.assign(units3, true);
  w.Z2Z2inv.reset(units3, square(pass.b));
  w.K.reset(units3, square(pass.b));
  w.h3.reset(units3, at(pass.b));
  pass.nusable1 = pass.nunits1;
  pass.nusable2 = pass.mdm().nunits2;
  pass.nusable3 = pass.mdm().nunits3;
  const FirstMoments first = firstsweep(pass, w);
  if (storefailure(pass.store)) return storefailure(pass.store);
  const bool nofits = pass.nusable2 < 1 || pass.nusable3 < 1 || (pass.fixsigma2 == 0.0 && sparerecords(pass) < 1);
  if (nofits && identified(pass)) {
    pass.nusable1 = pass.nunits1;
    pass.nusable2 = pass.mdm().nunits2;
    pass.nusable3 = pass.mdm().nunits3;
    return startbyshares(pass, moments);
  }
  if (Failure failure = startsigma2(pass, first.S, pass.est.sigma2)) return failure;
  if (Failure failure = firsttaupi(pass, w)) return failure;
  if (Failure failure = firsttaubeta(pass, w, first)) return failure;
  const Array<double> Q = scaledinverse(pass.est.taubeta, pass.b, pass.est.sigma2);
  residualsweep(pass, w, Q);
  momentsweep(pass, w, Q);
  momenttaupi(pass, w, pass.est.taupi.data());
  moments.taupi = std::move(w.U2);
  moments.taubeta = first.V2.copy();
  return storefailure(pass.store);
}

Failure starttaubeta(Pass& pass, StartMoments& moments) {
  const int b = pass.b, p = pass.p;
  StartWork w = makework(pass);
  const Array<double> Q = scaledinverse(pass.est.taupi, p, pass.est.sigma2);
  Array<double> R(at(b) * at(b)), V2(at(b) * at(b)), RC(at(b) * at(p));
  sweepunits(
      pass.n2of,
      [&](int k) {
        level3residual(pass, k, w);  // w.B becomes E and w.residual becomes w of the formulas
      },
      [&](int k, std::size_t, const double* hot) {
        unpack(p, hot, w.Z1Z1.data());
        for (std::size_t i = 0; i < Q.size(); ++i) w.Z1Z1[i] += Q[i];
        if (invertsymmetric(p, w.Z1Z1.data(), w.Pj.data()).result == 1) return;
        unitZ2Z1(pass, k, hot, w.R);
        mulAB(RC.data(), w.R.data(), w.Pj.data(), b, p, p);
        subABt(w.B.data(), RC.data(), w.R.data(), b, b, p);
        residualproduct(pass.store, hot, w.theta.data(), w.a.data());
        subAB(w.residual.data(), RC.data(), w.a.data(), b, 1, p);
      },
      [&](int) {
        if (!usablelevel3(pass, w)) return;
        mulAB(w.v.data(), w.E.data(), w.residual.data(), b, 1, b);
        addto(R, w.E);
        addouter(V2, w.v);
      },
      reading(pass.store.hot));
  double* L = pass.est.taubeta.data();
  for (std::size_t i = 0; i < R.size(); ++i) L[i] = V2[i] / pass.nusable3 - pass.est.sigma2 * R[i] / pass.nusable3;
  applyheld(pass.model(), Tau::beta, pass.est);
  moments.taubeta = std::move(V2);
  return storefailure(pass.store);
}

}  // namespace kdr
