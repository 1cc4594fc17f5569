#include "estimate/linear/marginalderivatives.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "estimate/linear/marginalunit.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The symmetric element of a triangle as ordered pairs (a, b), of which E is the sum of e_a e_b'.
struct Element {
  int i, j;
  [[nodiscard]] double of(const double* symmetric, int n) const { return symmetric[i * n + j] * (i == j ? 1.0 : 2.0); }
  template <class Use>
  void each(Use use) const {
    use(i, j);
    if (i != j) use(j, i);
  }
};

Array<Element> elementsof(int n) {
  Array<Element> elements(packedsize(n));
  eachelement(n, [&](int e, int i, int j) { elements[e] = {i, j}; });
  return elements;
}

// tr(E X E' Y), n by n.
double doubletrace(Element E, const double* X, Element F, const double* Y, int n) {
  double sum = 0.0;
  E.each([&](int a, int b) { F.each([&](int c, int d) { sum += X[b * n + c] * Y[d * n + a]; }); });
  return sum;
}

// The sums of a sweep over all units for the derivatives.
struct DerivativeSums {
  const MarginalSums& data;
  const bool all;
  const int p, b, C, np, nb, NT;
  const Array<Element> elements2, elements3;
  LevelForm V;  // of V^-1
  double logdeterminants = 0.0;
  Array<double> t;           // [NT]
  std::vector<LevelForm> P;  // [NT]
  Array<double> Qrr;         // pairs
  std::vector<LevelForm> Q;  // pairs, with `all`; one of Q_ij and its transpose
  Array<double> T;           // pairs, with `all`
  // Of one level-3 unit: forms in [r | B] (C squared) of the elements of taupi, of their pairs and of their pairs with
  // sigma2, the last two of r alone without `all`; b by C and b squared for each element.
  UnitTable<double> P2, Q22, Q2s, Y, Lambda;
  Array<double> form, bC, bb, bb2;

  DerivativeSums(const MarginalSums& ofdata, bool wantall)
      : data(ofdata),
        all(wantall),
        p(data.p),
        b(data.b),
        C(data.columns()),
        np(static_cast<int>(packedsize(p))),
        nb(static_cast<int>(packedsize(b))),
        NT(np + nb + 1),
        elements2(elementsof(p)),
        elements3(elementsof(b)),
        V(data.g),
        t(at(NT)) {
    const std::size_t pairs = packedsize(NT), block = all ? square(C) : 1;
    for (int i = 0; i < NT; ++i) P.emplace_back(data.g);
    Qrr.reset(pairs);
    if (all) {
      for (std::size_t i = 0; i < pairs; ++i) Q.emplace_back(data.g);
      T.reset(pairs);
    }
    P2.reset(at(np), square(C));
    Q22.reset(packedsize(np), block);
    Q2s.reset(at(np), block);
    Y.reset(at(np), at(b * C));
    Lambda.reset(at(np), square(b));
    form.reset(square(C));
    bC.reset(at(b * C));
    for (Array<double>* m : {&bb, &bb2}) m->reset(square(b));
  }

  static std::size_t pair(int i, int j) { return i >= j ? packedsize(i) + at(j) : packedsize(j) + at(i); }
  // X += factor x y' over the columns, or of r alone.
  void outer(double* X, double factor, const double* x, const double* y) const {
    if (!all) {
      X[0] += factor * x[0] * y[0];
    } else {
      fullouter(X, factor, x, y);
    }
  }
  void fullouter(double* X, double factor, const double* x, const double* y) const {
    for (int c = 0; c < C; ++c) {
      const double f = factor * x[c];
      for (int d = 0; d < C; ++d) X[c * C + d] += f * y[d];
    }
  }
  // A pair's form, of one level-3 unit.
  void addQ(const MarginalUnit& unit, int i, int j, const double* X) {
    Qrr[pair(i, j)] += X[0];
    if (all) addform(data, unit, X, Q[pair(i, j)]);
  }
  double* cleared() {
    form.fill(0.0);
    return form.data();
  }
};

void beginlevel3(DerivativeSums& sums) {
  for (UnitTable<double>* table : {&sums.P2, &sums.Q22, &sums.Q2s, &sums.Y, &sums.Lambda}) table->cells.fill(0.0);
}

double traceof(const double* X, const double* Y, int n) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) sum += X[i * n + j] * Y[j * n + i];
  return sum;
}

// What the level-3 effects add to the elements of taupi, once the level-2 units of k are summed.
void endtaupi(DerivativeSums& sums, const MarginalUnit& unit) {
  const int b = sums.b, C = sums.C;
  for (int e = 0; e < sums.np; ++e) {
    mirror(C, sums.P2.row(e));
    addform(sums.data, unit, sums.P2.row(e), sums.P[e]);
    sums.addQ(unit, sums.NT - 1, e, sums.Q2s.row(e));
    // (e, f): - Y(E)'N Y(E'), tr(Lambda(E) N Lambda(E') N)
    mulAB(sums.bC.data(), unit.N.data(), sums.Y.row(e), b, C, b);
    mulAB(sums.bb.data(), unit.N.data(), sums.Lambda.row(e), b, b, b);
    for (int f = 0; f <= e; ++f) {
      double* const Q = sums.Q22.row(static_cast<int>(DerivativeSums::pair(e, f)));
      for (int a = 0; a < b; ++a) sums.outer(Q, -1.0, sums.bC.data() + at(a * C), sums.Y.row(f) + at(a * C));
      sums.addQ(unit, e, f, Q);
      if (!sums.all) continue;
      mulAB(sums.bb2.data(), unit.N.data(), sums.Lambda.row(f), b, b, b);
      sums.T[DerivativeSums::pair(e, f)] += traceof(sums.bb.data(), sums.bb2.data(), b);
    }
    // (e, element of taubeta): Y(E)'Rb'E'F, tr(E'Rb Lambda(E) Rb')
    mulAB(sums.bC.data(), unit.Rb.data(), sums.Y.row(e), b, C, b);
    mulAB(sums.bb2.data(), unit.Rb.data(), sums.Lambda.row(e), b, b, b);
    mulABt(sums.bb.data(), sums.bb2.data(), unit.Rb.data(), b, b, b);
    symmetrise(b, sums.bb.data());
    for (int f = 0; f < sums.nb; ++f) {
      const Element F = sums.elements3[f];
      double* const Q = sums.cleared();
      F.each([&](int i, int j) { sums.outer(Q, 1.0, sums.bC.data() + at(i * C), unit.F.data() + at(j * C)); });
      sums.addQ(unit, sums.np + f, e, Q);
      if (sums.all) sums.T[DerivativeSums::pair(sums.np + f, e)] += F.of(sums.bb.data(), b);
    }
  }
}

void endtaubeta(DerivativeSums& sums, const MarginalUnit& unit) {
  const int b = sums.b, C = sums.C, last = sums.NT - 1;
  const auto F = [&](int i) { return unit.F.data() + at(i * C); };
  for (int e = 0; e < sums.nb; ++e) {
    const Element E = sums.elements3[e];
    const int i = sums.np + e;
    sums.t[i] += E.of(unit.Ct.data(), b);
    double* X = sums.cleared();
    E.each([&](int r, int c) { sums.fullouter(X, 1.0, F(r), F(c)); });
    addform(sums.data, unit, X, sums.P[i]);
    X = sums.cleared();
    E.each([&](int r, int c) { sums.outer(X, 1.0, F(r), unit.F2.data() + at(c * C)); });
    sums.addQ(unit, last, i, X);
    for (int f = 0; f <= e; ++f) {
      const Element G = sums.elements3[f];
      X = sums.cleared();
      E.each([&](int r, int c) { G.each([&](int k, int l) { sums.outer(X, unit.Ct[c * b + k], F(r), F(l)); }); });
      sums.addQ(unit, i, sums.np + f, X);
      if (sums.all)
        sums.T[DerivativeSums::pair(i, sums.np + f)] += doubletrace(E, unit.Ct.data(), G, unit.Ct.data(), b);
    }
    if (sums.all) sums.T[DerivativeSums::pair(last, i)] += E.of(unit.Ct2.data(), b);
  }
}

void endsigma2(DerivativeSums& sums, const MarginalUnit& unit) {
  const int b = sums.b, last = sums.NT - 1;
  addform(sums.data, unit, unit.Y2.data(), sums.P[last]);
  sums.addQ(unit, last, last, unit.Y3.data());
  sums.t[last] -= traceof(unit.N.data(), unit.C2.data(), b);
  if (!sums.all) return;
  mulAB(sums.bb.data(), unit.N.data(), unit.C2.data(), b, b, b);
  sums.T[DerivativeSums::pair(last, last)] +=
      traceof(sums.bb.data(), sums.bb.data(), b) - 2.0 * traceof(unit.N.data(), unit.C3.data(), b);
}

// P of r - M change, of which only the part of r alone is asked for.
double rrchanged(const LevelForm& P, const Array<double>& change) {
  const int g = static_cast<int>(change.size());
  double rr = P.rr;
  for (int a = 0; a < g; ++a) rr += change[a] * (dot(P.xx.data() + at(a * g), change.data(), at(g)) - 2.0 * P.xr[a]);
  return rr;
}

// Score and informations from the sums, with tr(Phi Px_i), Phi Px_i and pr_i.
// The score belongs to the fixed effects that are best, which differ by `change` from those of the sums.
MarginalDerivatives derivativesof(const DerivativeSums& sums, const MarginalValue& value, Criterion criterion,
                                  const Array<double>& change) {
  const int NT = sums.NT, g = sums.data.g;
  const bool restricted = criterion == Criterion::restricted;
  const double* Phi = value.covariance.data();
  MarginalDerivatives made{Array<double>(at(NT)), Array<double>(square(NT)), Array<double>(square(NT)), {}, {}};
  UnitTable<double> PhiP, Phir;
  PhiP.reset(at(NT), square(g));
  Phir.reset(at(NT), at(g));
  for (int i = 0; i < NT; ++i) {
    mulAB(PhiP.row(i), Phi, sums.P[i].xx.data(), g, g, g);
    mulAB(Phir.row(i), Phi, sums.P[i].xr.data(), g, 1, g);
    double trace = 0.0;
    for (int a = 0; a < g; ++a) trace += PhiP.row(i)[a * g + a];
    made.score[i] = -0.5 * (sums.t[i] - (restricted ? trace : 0.0) - rrchanged(sums.P[i], change));
  }
  for (int i = 0; i < NT; ++i)
    for (int j = 0; j <= i; ++j) {
      const std::size_t pair = DerivativeSums::pair(i, j);
      const double q = sums.Qrr[pair] - dot(sums.P[i].xr.data(), Phir.row(j), at(g));
      made.average[i * NT + j] = made.average[j * NT + i] = 0.5 * q;
      if (!sums.all) continue;
      double information = sums.T[pair];
      if (restricted)
        information += traceof(PhiP.row(i), PhiP.row(j), g) - 2.0 * traceof(Phi, sums.Q[pair].xx.data(), g);
      made.expected[i * NT + j] = made.expected[j * NT + i] = 0.5 * information;
    }
  if (!sums.all) return made;
  made.P.reset(at(NT), square(g));
  made.Q.reset(packedsize(NT), square(g));
  for (int i = 0; i < NT; ++i) std::copy(sums.P[i].xx.begin(), sums.P[i].xx.end(), made.P.row(i));
  for (std::size_t i = 0; i < sums.Q.size(); ++i)
    std::copy(sums.Q[i].xx.begin(), sums.Q[i].xx.end(), made.Q.row(static_cast<int>(i)));
  return made;
}

// The level-2 units of k go round in pieces that keep no more than this for their second visit.
constexpr std::size_t mostkept = std::size_t{1} << 22;  // in values

// A level-3 unit at theta, with what its level-2 units keep.
struct DerivativeSweep {
  MarginalSums& data;
  const Estimates& theta;
  const double* gamma;
  DerivativeSums& total;
  MarginalUnit unit;
  int piece;  // level-2 units of a piece
  Array<double> kept, spare;

  DerivativeSweep(MarginalSums& sums, const Estimates& at0, const Array<double>& fixed, DerivativeSums& made)
      : data(sums), theta(at0), gamma(fixed.data()), total(made), unit(sums), spare(3 * square(sums.columns())) {
    int most = 1;
    for (const int n : data.n2of) most = std::max(most, n);
    const std::size_t each = marginalkept(data.p, data.columns(), 4) / 4;
    piece = std::min(most, std::max(4, static_cast<int>(mostkept / each)));
    kept.reset(marginalkept(data.p, data.columns(), piece));
  }
  [[nodiscard]] MarginalRecords recordsof(const double* records, int from, int units) {
    return {records + at(from) * data.units.stride(),
            data.units.stride(),
            units,
            data.p,
            data.b,
            data.columns(),
            unit.loopwork.data()};
  }
  // The first visit to a piece; one that was visited before adds to `spare`.
  MarginalFirst visitfirst(const MarginalRecords& records, bool again) {
    double* const G = spare.data();
    const std::size_t CC = square(data.columns());
    MarginalFirst first{unit.theta.data(),
                        theta.taupi.data(),
                        theta.sigma2,
                        3,
                        total.all,
                        again ? G : unit.G1.data(),
                        again ? G + CC : unit.G2.data(),
                        again ? G + 2 * CC : unit.G3.data(),
                        0.0,
                        0.0,
                        0.0,
                        kept.data()};
    marginalloops().first(records, first);
    return first;
  }
  void visitsecond(const MarginalRecords& records) {
    DerivativeSums& sums = total;
    // Elements of taupi and their pairs stand first among all.
    const MarginalSecond second{unit.N.data(),
                                unit.NC2N.data(),
                                unit.TF.data(),
                                unit.TF2.data(),
                                sums.all,
                                kept.data(),
                                sums.t.data(),
                                sums.P2.cells.data(),
                                sums.Q2s.cells.data(),
                                sums.Q22.cells.data(),
                                sums.Y.cells.data(),
                                sums.Lambda.cells.data(),
                                sums.T.data(),
                                sums.all ? sums.T.data() + DerivativeSums::pair(sums.NT - 1, 0) : nullptr};
    marginalloops().second(records, second);
  }
  void visit(int k, const double* records);
};

void DerivativeSweep::visit(int k, const double* records) {
  const int units = data.n2of[k];
  beginunit(data, k, theta.sigma2, gamma, unit);
  for (int from = 0; from < units; from += piece) {
    const MarginalFirst first = visitfirst(recordsof(records, from, std::min(piece, units - from)), false);
    unit.logdeterminant += first.logdeterminant;
    unit.traceR += first.traceR;
    unit.traceRR += first.traceRR;
  }
  finishvalue(data, theta, unit);
  finishderivatives(data, theta, unit);
  total.logdeterminants += unit.logdeterminant;
  addform(data, unit, unit.Y1.data(), total.V);
  beginlevel3(total);
  for (int from = 0; from < units; from += piece) {
    const MarginalRecords part = recordsof(records, from, std::min(piece, units - from));
    if (units > piece) visitfirst(part, true);
    visitsecond(part);
  }
  const double s = theta.sigma2;
  const int last = total.NT - 1;
  total.t[last] += unit.traceR / s;
  if (total.all) total.T[DerivativeSums::pair(last, last)] += unit.traceRR / (s * s);
  endtaupi(total, unit);
  endtaubeta(total, unit);
  endsigma2(total, unit);
}

void sumderivatives(MarginalSums& data, const Estimates& theta, const Array<double>& gamma, DerivativeSums& total) {
  const double s = theta.sigma2, left = data.records1 - static_cast<double>(data.units2) * data.p;
  const int last = total.NT - 1;
  total.t[last] = left / s;
  if (total.all) total.T[DerivativeSums::pair(last, last)] = left / (s * s);
  DerivativeSweep sweep(data, theta, gamma, total);
  sweeplevel3(
      data.n2of, [&](int k, std::size_t, const double* records) { sweep.visit(k, records); }, reading(data.units));
}

// The value under a held effect, from that without: the best fixed effects and their covariance beside it.
void hold(const HeldEffect& held, MarginalValue& value, Array<double>& change) {
  const std::size_t g = value.gamma.size(), l = at(held.effect);
  Array<double> column(g);
  for (std::size_t i = 0; i < g; ++i) column[i] = value.covariance[i * g + l];
  const double variance = column[l], shift = (held.level - value.gamma[l]) / variance;
  value.loglik -= 0.5 * shift * shift * variance;
  for (std::size_t i = 0; i < g; ++i) {
    value.gamma[i] += shift * column[i];
    change[i] += shift * column[i];
    for (std::size_t j = 0; j < g; ++j) value.covariance[i * g + j] -= column[i] * column[j] / variance;
  }
  value.gamma[l] = held.level;
}

}  // namespace

MarginalDerivatives marginalderivatives(MarginalSums& sums, const Estimates& theta, const MarginalValue& value,
                                        Criterion criterion, Derivatives wanted) {
  DerivativeSums total(sums, wanted == Derivatives::all);
  sumderivatives(sums, theta, value.gamma, total);
  return derivativesof(total, value, criterion, Array<double>(at(sums.g)));
}

MarginalStep marginalstep(MarginalSums& sums, const Estimates& theta, Criterion criterion,
                          const std::optional<HeldEffect>& held) {
  constexpr double far = 1.0;  // standard errors, squared
  MarginalStep step;
  if (!(theta.sigma2 > 0.0) || !std::isfinite(theta.sigma2)) return step;
  DerivativeSums total(sums, false);
  sumderivatives(sums, theta, theta.gammahat, total);
  Array<double> change;
  step.value = marginalvalueof(sums, theta, total.V, total.logdeterminants, change);
  if (!step.value.known) return step;
  if (held) hold(*held, step.value, change);
  Array<double> moved(change.size());
  mulAB(moved.data(), total.V.xx.data(), change.data(), sums.g, 1, sums.g);
  MarginalDerivatives made = dot(change.data(), moved.data(), change.size()) > far
                                 ? marginalderivatives(sums, theta, step.value, criterion, Derivatives::step)
                                 : derivativesof(total, step.value, criterion, change);
  step.score = std::move(made.score);
  step.average = std::move(made.average);
  return step;
}

}  // namespace kdr
