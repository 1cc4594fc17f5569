#include "estimate/inference/unitmodes.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "estimate/inference/responsecurve.h"
#include "estimate/linear/unitresults.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// Effects in coordinates in which they are independent with variance 1: u = R w, v = Q z with tau(pi) = R R', tau(beta)
// = Q Q'. A variance of 0 is a column of zeros there, which no data moves.
struct Level2Block {
  Array<double> w;              // [p]
  Array<double> A, inverse, B;  // p squared: I + sum R'd'Wd R, and its inverse; p by b: sum R'd'We Q
  Array<double> s;              // [p] the score: sum R'd's - w
  Array<double> X;              // p by g: sum R'd'Wx
  double weight = 1.0;          // of all that it adds to what is of v
  double divisor = 1.0;         // of the covariance given v
};

struct Modes {
  const FittedModel& fitted;
  const UnitOutcomes& outcomes;
  int M, p, b, g;
  Array<double> R, Q;
  std::vector<Level2Block> level2;
  Array<double> z, V, inverse, s, X;  // of v, likewise; V is without what the level-2 units take off
  std::vector<Array<double>> fixed;   // [record] eta without effects
  ResponseCurve curve;
  double height = 0.0;
};

// log-density of a record, its score by eta (M) and minus its second derivatives (M squared).
double recordterms(Modes& m, std::size_t i, const double* eta, double* score, double* W) {
  const Outcome& outcome = m.fitted.outcome;
  const double y = m.outcomes.outcome[i], n = m.outcomes.rows[i].count;
  const std::size_t M = at(m.M);
  if (outcome.categorical()) {
    responsecurve(outcome, eta, 1.0, m.curve);
    const auto k = static_cast<std::size_t>(y);
    const double mean = std::max(m.curve.mean[k], 1e-300);
    for (std::size_t a = 0; a < M; ++a) score[a] = m.curve.first[k * M + a] / mean;
    for (std::size_t a = 0; a < M; ++a)
      for (std::size_t c = 0; c < M; ++c)
        W[a * M + c] = score[a] * score[c] - m.curve.second[(k * M + a) * M + c] / mean;
    return std::log(mean);
  }
  switch (outcome.family) {
    case Family::poisson: {
      const double mean = n * std::exp(eta[0]);
      score[0] = y - mean;
      W[0] = mean;
      return y * eta[0] - mean;
    }
    case Family::normal: {
      const double s = m.fitted.results.est.sigma2, e = y - eta[0];
      score[0] = e / s;
      W[0] = 1.0 / s;
      return -0.5 * e * e / s;
    }
    default: {
      responsecurve(outcome, eta, 1.0, m.curve);
      score[0] = y - n * m.curve.mean[0];
      W[0] = n * m.curve.first[0];
      return y * eta[0] - n * (std::max(eta[0], 0.0) + std::log1p(std::exp(-std::fabs(eta[0]))));
    }
  }
}

Array<double> predictor(const Modes& m, std::size_t i) {
  const PredictorRows& rows = m.outcomes.rows[i];
  Array<double> eta = m.fixed[i].copy(), u(at(m.p)), v(at(m.b));
  mulAB(u.data(), m.R.data(), m.level2[at(m.outcomes.unit[i])].w.data(), m.p, 1, m.p);
  mulAB(v.data(), m.Q.data(), m.z.data(), m.b, 1, m.b);
  addAB(eta.data(), rows.d.data(), u.data(), m.M, 1, m.p);
  addAB(eta.data(), rows.e.data(), v.data(), m.M, 1, m.b);
  return eta;
}

double squares(const Array<double>& x) {
  double sum = 0.0;
  for (const double value : x) sum += value * value;
  return sum;
}

// The joint log-density at the effects at hand, with its derivatives.
void evaluate(Modes& m) {
  const auto unit = [](Array<double>& A, int n) {
    A.fill(0.0);
    for (int i = 0; i < n; ++i) A[at(i * (n + 1))] = 1.0;
  };
  const std::vector<double>& weight1 = m.outcomes.weight1;
  m.height = -0.5 * squares(m.z);
  unit(m.V, m.b);
  for (int i = 0; i < m.b; ++i) m.s[at(i)] = -m.z[at(i)];
  m.X.fill(0.0);
  for (Level2Block& own : m.level2) {
    m.height -= 0.5 * own.weight * squares(own.w);
    unit(own.A, m.p);
    own.B.fill(0.0);
    own.X.fill(0.0);
    for (int i = 0; i < m.p; ++i) own.s[at(i)] = -own.w[at(i)];
  }
  Array<double> score(at(m.M)), W(square(m.M)), D(at(m.M) * at(m.p)), E(at(m.M) * at(m.b)), WD(at(m.M) * at(m.p)),
      WE(at(m.M) * at(m.b)), WX(at(m.M) * at(m.g));
  for (std::size_t i = 0; i < m.outcomes.rows.size(); ++i) {
    const PredictorRows& rows = m.outcomes.rows[i];
    Level2Block& own = m.level2[at(m.outcomes.unit[i])];
    const double density = recordterms(m, i, predictor(m, i).data(), score.data(), W.data());
    const double weight = weight1.empty() ? 1.0 : weight1[i];
    for (Array<double>* part : {&score, &W})
      for (double& value : *part) value *= weight;
    m.height += own.weight * weight * density;
    mulAB(D.data(), rows.d.data(), m.R.data(), m.M, m.p, m.p);
    mulAB(E.data(), rows.e.data(), m.Q.data(), m.M, m.b, m.b);
    mulAB(WD.data(), W.data(), D.data(), m.M, m.p, m.M);
    mulAB(WE.data(), W.data(), E.data(), m.M, m.b, m.M);
    mulAB(WX.data(), W.data(), rows.x.data(), m.M, m.g, m.M);
    addAtB(own.A.data(), D.data(), WD.data(), m.p, m.p, m.M);
    addAtB(own.B.data(), D.data(), WE.data(), m.p, m.b, m.M);
    addAtB(own.s.data(), D.data(), score.data(), m.p, 1, m.M);
    addAtB(own.X.data(), D.data(), WX.data(), m.p, m.g, m.M);
    for (Array<double>* part : {&score, &WE, &WX})
      for (double& value : *part) value *= own.weight;
    addAtB(m.V.data(), E.data(), WE.data(), m.b, m.b, m.M);
    addAtB(m.s.data(), E.data(), score.data(), m.b, 1, m.M);
    addAtB(m.X.data(), E.data(), WX.data(), m.b, m.g, m.M);
  }
}

// Inverses of the blocks: of A_j, and of V - sum B_j'A_j^-1 B_j, each unit by its weight.
bool invertblocks(Modes& m) {
  Array<double> left = m.V.copy(), half(at(m.p) * at(m.b));
  for (Level2Block& own : m.level2) {
    if (m.p > 0 && invertsymmetric(m.p, own.A.data(), own.inverse.data()).result != 0) return false;
    mulAB(half.data(), own.inverse.data(), own.B.data(), m.p, m.b, m.p);
    Array<double> taken(square(m.b));
    mulAtB(taken.data(), own.B.data(), half.data(), m.b, m.b, m.p);
    for (std::size_t i = 0; i < taken.size(); ++i) left[i] -= own.weight * taken[i];
  }
  return m.b == 0 || invertsymmetric(m.b, left.data(), m.inverse.data()).result == 0;
}

// H^-1 times what stands in the scores, or in X (columns of it): of v, then of each u_j.
void solve(const Modes& m, int columns, const Array<double>& s3, const std::vector<const Array<double>*>& s2,
           Array<double>& v, std::vector<Array<double>>& u) {
  Array<double> left = s3.copy();
  u.clear();
  for (std::size_t j = 0; j < m.level2.size(); ++j) {
    u.emplace_back(at(m.p) * at(columns));
    mulAB(u[j].data(), m.level2[j].inverse.data(), s2[j]->data(), m.p, columns, m.p);
    Array<double> taken(at(m.b) * at(columns));
    mulAtB(taken.data(), m.level2[j].B.data(), u[j].data(), m.b, columns, m.p);
    for (std::size_t i = 0; i < taken.size(); ++i) left[i] -= m.level2[j].weight * taken[i];
  }
  v.reset(at(m.b) * at(columns));
  mulAB(v.data(), m.inverse.data(), left.data(), m.b, columns, m.b);
  Array<double> Bv(at(m.p) * at(columns));
  for (std::size_t j = 0; j < m.level2.size(); ++j) {
    mulAB(Bv.data(), m.level2[j].B.data(), v.data(), m.p, columns, m.b);
    subAB(u[j].data(), m.level2[j].inverse.data(), Bv.data(), m.p, columns, m.p);
  }
}

// Newton's steps, halved until the density rises, until one is short against the effects' own scale of 1.
bool climb(Modes& m) {
  constexpr int most = 100, halvings = 40;
  constexpr double settled = 1e-9;
  evaluate(m);
  for (int step = 0; step < most; ++step) {
    if (!invertblocks(m)) return false;
    std::vector<const Array<double>*> scores;
    for (const Level2Block& own : m.level2) scores.push_back(&own.s);
    Array<double> dz;
    std::vector<Array<double>> dw;
    solve(m, 1, m.s, scores, dz, dw);
    double length = squares(dz);
    for (const Array<double>& d : dw) length = std::max(length, squares(d));
    const double before = m.height;
    double share = 1.0, taken = 0.0;
    for (int half = 0; half < halvings; ++half, share *= 0.5) {
      for (std::size_t i = 0; i < dz.size(); ++i) m.z[i] += (share - taken) * dz[i];
      for (std::size_t j = 0; j < dw.size(); ++j)
        for (std::size_t i = 0; i < dw[j].size(); ++i) m.level2[j].w[i] += (share - taken) * dw[j][i];
      taken = share;
      evaluate(m);
      if (std::isfinite(m.height) && m.height >= before - 1e-9 * (1.0 + std::fabs(before))) break;
    }
    if (std::sqrt(length) < settled) return invertblocks(m);
  }
  return false;
}

// Back from (w, z) to (u, v): rows of a matrix with p + b rows.
void back(const Modes& m, const double* w, const double* z, int columns, double* to) {
  mulAB(to, m.R.data(), w, m.p, columns, m.p);
  mulAB(to + m.p * columns, m.Q.data(), z, m.b, columns, m.b);
}

// cov (w, z) of level-2 unit j; of one that is not in the data (null) the model's.
Array<double> covarianceof(const Modes& m, const Level2Block* own) {
  const int n = m.p + m.b;
  Array<double> C(square(n));
  const auto put = [&](const Array<double>& block, int rows, int columns, int row, int column, double sign) {
    for (int i = 0; i < rows; ++i)
      for (int l = 0; l < columns; ++l) C[at((row + i) * n + column + l)] = sign * block[at(i * columns + l)];
  };
  Array<double> ofv = m.inverse.copy();
  for (double& value : ofv) value /= m.outcomes.divisor3;
  put(ofv, m.b, m.b, m.p, m.p, 1.0);
  if (own == nullptr) {
    for (int i = 0; i < m.p; ++i) C[at(i * (n + 1))] = 1.0;
    return C;
  }
  Array<double> AB(at(m.p) * at(m.b)), ABP(at(m.p) * at(m.b)), uu = own->inverse.copy();
  for (double& value : uu) value /= own->divisor;
  mulAB(AB.data(), own->inverse.data(), own->B.data(), m.p, m.b, m.p);
  mulAB(ABP.data(), AB.data(), ofv.data(), m.p, m.b, m.b);
  addABt(uu.data(), ABP.data(), AB.data(), m.p, m.p, m.b);
  put(uu, m.p, m.p, 0, 0, 1.0);
  put(ABP, m.p, m.b, 0, m.p, -1.0);
  for (int i = 0; i < m.p; ++i)
    for (int l = 0; l < m.b; ++l) C[at((m.p + l) * n + i)] = C[at(i * n + m.p + l)];
  return C;
}

// L C L' with L = blockdiag(R, Q).
Array<double> scaledback(const Modes& m, const Array<double>& C) {
  const int n = m.p + m.b;
  Array<double> L(square(n)), half(square(n)), made(square(n));
  for (int i = 0; i < m.p; ++i) std::copy_n(m.R.data() + i * m.p, m.p, L.data() + i * n);
  for (int i = 0; i < m.b; ++i) std::copy_n(m.Q.data() + i * m.b, m.b, L.data() + (m.p + i) * n + m.p);
  mulAB(half.data(), L.data(), C.data(), n, n, n);
  mulABt(made.data(), half.data(), L.data(), n, n, n);
  return made;
}

KnownEffects effectsof(const Modes& m, const Level2Block* own, const Array<double>& dz, const Array<double>& dw) {
  const int n = m.p + m.b;
  const Array<double> none(at(m.p) * at(std::max(m.g, 1)));
  KnownEffects made{Array<double>(at(n)), scaledback(m, covarianceof(m, own)), Array<double>(at(n) * at(m.g))};
  back(m, own == nullptr ? none.data() : own->w.data(), m.z.data(), 1, made.mean.data());
  back(m, own == nullptr ? none.data() : dw.data(), dz.data(), m.g, made.jacobian.data());
  for (double& value : made.jacobian) value = -value;
  return made;
}

Modes modesof(const FittedModel& fitted, const UnitOutcomes& outcomes) {
  const PredictorPlan& plan = fitted.plan;
  Modes m{fitted, outcomes, plan.M, plan.p, plan.b, plan.g, {}, {},
          {},     {},       {},     {},     {},     {},     {}, emptycurve(fitted.outcome, plan.M)};
  constexpr double rounding = 1e-12;
  m.R.reset(square(m.p));
  m.Q.reset(square(m.b));
  lowerroot(fitted.results.est.taupi.data(), m.p, rounding, m.R.data());
  lowerroot(fitted.results.est.taubeta.data(), m.b, rounding, m.Q.data());
  m.z.reset(at(m.b));
  m.s.reset(at(m.b));
  m.V.reset(square(m.b));
  m.inverse.reset(square(m.b));
  m.X.reset(at(m.b) * at(m.g));
  for (int j = 0; j < outcomes.units; ++j)
    m.level2.push_back({Array<double>(at(m.p)), Array<double>(square(m.p)), Array<double>(square(m.p)),
                        Array<double>(at(m.p) * at(m.b)), Array<double>(at(m.p)), Array<double>(at(m.p) * at(m.g)),
                        outcomes.weight2.empty() ? 1.0 : outcomes.weight2[at(j)],
                        outcomes.divisor2.empty() ? 1.0 : outcomes.divisor2[at(j)]});
  for (const PredictorRows& rows : outcomes.rows) m.fixed.push_back(fixedpredictors(fitted, rows));
  return m;
}

}  // namespace

UnitModes unitmodes(const FittedModel& fitted, const UnitOutcomes& outcomes) {
  Modes m = modesof(fitted, outcomes);
  UnitModes made;
  made.settled = climb(m);
  if (!made.settled) return made;
  std::vector<const Array<double>*> X;
  for (const Level2Block& own : m.level2) X.push_back(&own.X);
  Array<double> dz;
  std::vector<Array<double>> dw;
  solve(m, m.g, m.X, X, dz, dw);
  for (std::size_t j = 0; j < m.level2.size(); ++j) made.ofunit.push_back(effectsof(m, &m.level2[j], dz, dw[j]));
  made.fresh = effectsof(m, nullptr, dz, {});
  return made;
}

void takeposteriors(const FittedModel& fitted, const Posteriors& random, long long unit, std::size_t k,
                    KnownEffects& effects) {
  const std::size_t p = at(fitted.plan.p), b = at(fitted.plan.b), n = p + b;
  const bool known = unit >= 0;
  const std::size_t j = known ? static_cast<std::size_t>(unit) : 0;
  effects.mean.fill(0.0);
  if (known) std::copy_n(random.u.data() + j * p, p, effects.mean.data());
  std::copy_n(random.v.data() + k * b, b, effects.mean.data() + p);
  if (random.uvariance.empty() && random.vvariance.empty()) return;
  if (p > 0 && b > 0 && random.uv.empty()) return;
  const double* U = known ? random.uvariance.data() + j * p * p : fitted.results.est.taupi.data();
  const double* V = random.vvariance.data() + k * b * b;
  effects.covariance.fill(0.0);
  for (std::size_t i = 0; i < p; ++i) std::copy_n(U + i * p, p, effects.covariance.data() + i * n);
  for (std::size_t i = 0; i < b; ++i) std::copy_n(V + i * b, b, effects.covariance.data() + (p + i) * n + p);
  for (std::size_t i = 0; known && i < p; ++i)
    for (std::size_t l = 0; l < b; ++l)
      effects.covariance[i * n + p + l] = effects.covariance[(p + l) * n + i] = random.uv[(j * p + i) * b + l];
}

}  // namespace kdr
