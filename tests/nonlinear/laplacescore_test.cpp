// Likelihood and score of the sixth-order Laplace approximation against dense computations from their definitions.
#include <gtest/gtest.h>

#include <functional>

#include "laplacestudy.h"

namespace {

using namespace laplacestudy;

const Shape shapes[] = {
    {"intercepts", 1, {0}, {{0, false}}, 6, 4, 6, 11},
    {"fixedslopes", 4, {0}, {{0, false}}, 6, 4, 6, 12},
    {"slope2", 2, {0, 1}, {{0, false}}, 6, 4, 7, 13},
    {"slope3", 3, {1}, {{0, false}, {1, false}}, 6, 4, 7, 14},
    {"sameowner", 3, {0, 1}, {{0, false}, {1, false}, {0, true}}, 6, 4, 7, 15},
    {"three", 3, {0, 1, 2}, {{0, false}, {1, false}, {2, false}}, 6, 3, 8, 16},
    {"fivecolumns", 6, {0, 1, 2}, {{3, false}, {5, false}}, 6, 3, 8, 17},
};

// A tight state at the modes.
struct Fixed {
  Study study;
  Parameters x;
  LaplaceState state;
  LaplaceSettings settings;
  TauInverses inverses;
  explicit Fixed(const Shape& shape, double size = 0.6) : study(shape), x(study.parameters(size)) {
    state = study.state(x);
    settings.stopmodes = 1e-9;
    ModeSums sums;
    EXPECT_TRUE(invertaus(x, inverses));
    EXPECT_EQ(findmodes(study.data, settings, x, inverses, "", state.modes, sums), ModeResult::found);
  }
  Array<double> rel2, rel3;  // of the unit that was scored last
  UnitReliability reliability;
  std::vector<double> score(std::size_t k) {
    ScoreWork work = makescorework(study.data, x.q, x.r);
    std::vector<double> s(x.count());
    rel2.reset(at(x.q));
    rel3.reset(at(x.r));
    reliability = {rel2.data(), rel3.data()};
    EXPECT_TRUE(unitscore(study.data, x, inverses, state.modes, study.units[k], work, s.data(), reliability));
    return s;
  }
};

class Laplace : public testing::TestWithParam<Shape> {};
INSTANTIATE_TEST_SUITE_P(Shapes, Laplace, testing::ValuesIn(shapes),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(Laplace, ModesAreTheJointMaximum) {
  Fixed made(GetParam());
  const int q = made.x.q, r = made.x.r;
  for (std::size_t k = 0; k < made.study.units.size(); ++k) {
    const Level3Records& unit = made.study.units[k];
    const DenseFit fit = densemode(DenseUnit(made.study, unit), made.x);
    for (int m = 0; m < r; ++m) {
      EXPECT_NEAR(made.state.modes.v[k * at(r) + at(m)], fit.b(m, 0), 1e-10);
      for (int l = 0; l < r; ++l)
        EXPECT_NEAR(made.state.modes.C3[k * square(r) + at(m * r + l)], fit.V(m, l), 1e-9) << "cov v";
    }
    for (int j = 0; j < unit.units; ++j)
      for (int a = 0; a < q; ++a)
        EXPECT_NEAR(made.state.modes.u[(unit.firstunit + at(j)) * at(q) + at(a)], fit.b(r + j * q + a, 0), 1e-10);
  }
}

TEST_P(Laplace, LikelihoodIsThatOfTheDenseDefinition) {
  for (const double size : {0.05, 0.6, 1.5}) {
    Fixed made(GetParam(), size);
    double wanted = 0, likelihood = 0;
    for (const Level3Records& unit : made.study.units) wanted += denselikelihood(DenseUnit(made.study, unit), made.x);
    ASSERT_TRUE(laplace6loglikelihood(made.study.data, made.settings, made.state, likelihood));
    EXPECT_NEAR(likelihood, wanted, 1e-8) << size;
  }
}

// The correction S_k from the tensors of the third to sixth derivatives of the joint log-density, contracted with the
// inverse V of the information; the square of the third is taken per level-2 unit:
//   S = -(1/8) T4_abcd V_ab V_cd - (1/48) T6_abcdef V_ab V_cd V_ef - (5/24) sum_j T3j_abc T3j_def V_ab V_cd V_ef
TEST_P(Laplace, CorrectionIsTheContractionOfTheDerivativeTensors) {
  Fixed made(GetParam());
  for (std::size_t k = 0; k < made.study.units.size(); ++k) {
    const DenseUnit unit(made.study, made.study.units[k]);
    const DenseFit fit = densemode(unit, made.x);
    const int d = unit.F.cols;
    if (d > 9) continue;
    const auto size = [d](int order) { return static_cast<std::size_t>(std::pow(d, order) + 0.5); };
    std::vector<double> T4(size(4)), T6(size(6));
    std::vector<std::vector<double>> T3(at(unit.units), std::vector<double>(size(3)));
    // T += factor f (x) f ... `order` times
    const auto addpower = [d](std::vector<double>& T, int order, double factor, const double* f) {
      for (std::size_t cell = 0; cell < T.size(); ++cell) {
        double product = factor;
        std::size_t rest = cell;
        for (int o = 0; o < order; ++o, rest /= at(d)) product *= f[rest % at(d)];
        T[cell] += product;
      }
    };
    for (int i = 0; i < unit.X.rows; ++i) {
      const auto derivative = softplus(fit.eta[at(i)]);  // the log-density has minus these
      const double* f = unit.F.cells.data() + i * d;
      addpower(T3[at(unit.unit2[at(i)])], 3, -derivative[3], f);
      addpower(T4, 4, -derivative[4], f);
      addpower(T6, 6, -derivative[6], f);
    }
    // The first two indices contracted with V.
    const auto contract = [&](const std::vector<double>& T) {
      std::vector<double> shorter(T.size() / square(d));
      for (std::size_t cell = 0; cell < T.size(); ++cell)
        shorter[cell / square(d)] +=
            T[cell] * fit.V(static_cast<int>(cell / at(d) % at(d)), static_cast<int>(cell % at(d)));
      return shorter;
    };
    double S = -contract(contract(T4))[0] / 8 - contract(contract(contract(T6)))[0] / 48;
    for (const auto& third : T3) {
      const std::vector<double> t = contract(third);
      for (int a = 0; a < d; ++a)
        for (int b = 0; b < d; ++b) S -= 5.0 / 24.0 * t[at(a)] * fit.V(a, b) * t[at(b)];
    }
    ScoreWork work = makescorework(made.study.data, made.x.q, made.x.r);
    const UnitLikelihood sums = unitlikelihood(made.study.data, made.x, made.state.modes, made.study.units[k], work);
    EXPECT_NEAR(sums.S, S, 1e-10) << "unit " << k;
    EXPECT_NEAR(sums.loglik, fit.records, 1e-10);
  }
}

// Every element of the score of every level-3 unit against central differences, with the modes found again at each
// point.
TEST_P(Laplace, ScoreIsTheDerivativeOfTheLikelihood) {
  for (const double size : {0.1, 0.6, 1.2}) {
    Fixed made(GetParam(), size);
    for (std::size_t k = 0; k < made.study.units.size(); ++k) {
      const DenseUnit unit(made.study, made.study.units[k]);
      const std::vector<double> score = made.score(k);
      for (std::size_t p = 0; p < made.x.count(); ++p) {
        const auto moved = [&](double h) {
          std::vector<double> delta(made.x.count());
          delta[p] = h;
          Parameters there = made.x.copy();
          addstep(there, delta.data());
          return denselikelihood(unit, there);
        };
        const auto difference = [&](double h) { return (moved(h) - moved(-h)) / (2 * h); };
        const double h = 2e-3 * size, slope = (4 * difference(h / 2) - difference(h)) / 3;
        EXPECT_NEAR(score[p], slope, 1e-8 * std::max(1.0, std::fabs(slope)))
            << "element " << p << " unit " << k << " size " << size;
      }
    }
  }
}

TEST_P(Laplace, ReliabilitiesAreThoseOfTheUnitsInformation) {
  Fixed made(GetParam());
  const int q = made.x.q, r = made.x.r;
  const Matrix Tp = matrixof(made.x.taupi, q, q), Tb = matrixof(made.x.taubeta, r, r);
  int unusable = 0;
  for (std::size_t k = 0; k < made.study.units.size(); ++k) {
    made.score(k);
    const DenseUnit unit(made.study, made.study.units[k]);
    const DenseFit fit = densemode(unit, made.x);
    std::vector<double> rel2(at(q));
    int count2 = 0;
    for (int j = 0; j < unit.units; ++j) {
      Matrix I(q, q);
      int records = 0;
      for (int i = 0; i < unit.X.rows; ++i)
        if (unit.unit2[at(i)] == j) {
          ++records;
          const double w = softplus(fit.eta[at(i)])[2];
          for (int a = 0; a < q; ++a)
            for (int b = 0; b < q; ++b) I(a, b) += w * unit.D(i, a) * unit.D(i, b);
        }
      if (records < q) continue;  // of lower rank
      ++count2;
      const Matrix V = inverse(I);
      for (int a = 0; a < q; ++a) rel2[at(a)] += Tp(a, a) / (V(a, a) + Tp(a, a));
    }
    unusable += unit.units - count2;
    EXPECT_EQ(made.reliability.count2, count2);
    for (int a = 0; a < q; ++a) EXPECT_NEAR(made.rel2[at(a)], rel2[at(a)], 1e-8);
    Matrix C3(r, r);
    for (int a = 0; a < r; ++a)
      for (int b = 0; b < r; ++b) C3(a, b) = fit.V(a, b);
    const Matrix V = inverse(inverse(C3) - inverse(Tb));
    if (made.reliability.count3 == 0) continue;  // its information has not the full rank
    for (int a = 0; a < r; ++a) EXPECT_NEAR(made.rel3[at(a)], Tb(a, a) / (V(a, a) + Tb(a, a)), 1e-6);
  }
  EXPECT_GT(unusable, 0);
}

// The score by its double sums over the records and the level-2 units of a level-3 unit. `within`: leave out what a
// record moves in the covariances of other level-2 units. `first`: the power of a_l beside k6_l in c_i is 1, not 2.
std::vector<double> doublesums(const Fixed& made, std::size_t k, bool within = false, bool first = false) {
  const Level3Records& records = made.study.units[k];
  const DenseUnit unit(made.study, records);
  const Parameters& x = made.x;
  const int n = unit.X.rows, q = x.q, r = x.r, g = x.g;
  const LaplaceModes& modes = made.state.modes;
  const auto part = [](const Array<double>& all, std::size_t place, int rows, int cols) {
    Matrix m(rows, cols);
    std::copy_n(all.data() + place * at(rows * cols), rows * cols, m.cells.begin());
    return m;
  };
  const auto row = [](const Matrix& m, int i) {
    Matrix column(m.cols, 1);
    for (int c = 0; c < m.cols; ++c) column(c, 0) = m(i, c);
    return column;
  };
  const Matrix Kp = matrixof(made.inverses.Kp, q, q), Kb = matrixof(made.inverses.Kb, r, r);
  const Matrix Tp = matrixof(x.taupi, q, q), Tb = matrixof(x.taubeta, r, r);
  const Matrix C3 = part(modes.C3, k, r, r), v = part(modes.v, k, r, 1);
  std::vector<Matrix> C2, Q, M, P, u;
  for (int j = 0; j < unit.units; ++j) {
    const std::size_t place = records.firstunit + at(j);
    C2.push_back(part(modes.C2, place, q, q));
    Q.push_back(part(modes.Q, place, r, q));
    u.push_back(part(modes.u, place, q, 1));
    M.push_back(C3 * Q.back());
    P.push_back(C2.back() + t(Q.back()) * C3 * Q.back());
  }
  // Quantities of the records.
  std::vector<Matrix> e, d, xg;
  std::vector<std::vector<double>> cumulant;
  std::vector<double> residual;
  Matrix gk(r, 1), Gx(g, r);
  std::vector<Matrix> rho(at(unit.units), Matrix(q, 1)), wxd(at(unit.units), Matrix(g, q));
  for (int i = 0; i < n; ++i) {
    const int j = unit.unit2[at(i)];
    e.push_back(row(unit.E, i));
    d.push_back(row(unit.D, i));
    xg.push_back(row(unit.X, i));
    const double eta = (t(xg.back()) * matrixof(x.gamma, g, 1) + t(e.back()) * v + t(d.back()) * u[at(j)])(0, 0);
    cumulant.push_back(softplus(eta));
    residual.push_back(unit.y[at(i)] - cumulant.back()[1]);
    gk = gk + residual.back() * e.back();
    rho[at(j)] = rho[at(j)] + residual.back() * d.back();
    wxd[at(j)] = wxd[at(j)] + cumulant.back()[2] * xg.back() * t(d.back());
    Gx = Gx + cumulant.back()[2] * xg.back() * t(e.back());
  }
  std::vector<Matrix> E;
  for (int j = 0; j < unit.units; ++j) {
    E.push_back(wxd[at(j)] * C2[at(j)]);
    Gx = Gx - wxd[at(j)] * t(Q[at(j)]);
  }
  const auto K = [&](int order, int i) { return cumulant[at(i)][at(order)]; };
  std::vector<Matrix> estar;
  for (int i = 0; i < n; ++i) estar.push_back(e[at(i)] - Q[at(unit.unit2[at(i)])] * d[at(i)]);
  const auto same = [&](int i, int l) { return unit.unit2[at(i)] == unit.unit2[at(l)]; };
  Matrix A(n, n);
  for (int i = 0; i < n; ++i)
    for (int l = 0; l < n; ++l) {
      const int j = unit.unit2[at(i)];
      A(i, l) = same(i, l) ? (t(e[at(l)]) * C3 * e[at(i)] - t(e[at(l)]) * M[at(j)] * d[at(i)] +
                              t(d[at(l)]) * P[at(j)] * d[at(i)] - t(d[at(l)]) * t(M[at(j)]) * e[at(i)])(0, 0)
                           : (t(estar[at(i)]) * C3 * estar[at(l)])(0, 0);
    }
  const auto a = [&](int i) { return A(i, i); };
  double S = 0;
  std::vector<double> b(at(n)), c(at(n)), F(at(n));
  for (int i = 0; i < n; ++i) {
    for (int l = 0; l < n; ++l)
      if (same(i, l)) b[at(i)] += K(3, l) * a(l) * A(i, l);
    S += K(4, i) * a(i) * a(i) / 8 + K(6, i) * std::pow(a(i), 3) / 48 - 5.0 / 24 * K(3, i) * a(i) * b[at(i)];
    F[at(i)] = 5.0 / 12 * K(3, i) * b[at(i)] - K(4, i) * a(i) / 4 - K(6, i) * a(i) * a(i) / 16;
  }
  for (int i = 0; i < n; ++i) {
    double sum = 0;
    std::vector<double> across(at(unit.units));  // sum_l k3_l a_l A_il over another unit
    for (int l = 0; l < n; ++l) {
      if (!same(i, l) && within) continue;
      const double square = A(i, l) * A(i, l);
      sum +=
          square * (K(4, l) * a(l) / 4 + K(6, l) * std::pow(a(l), first ? 1 : 2) / 16 - 5.0 / 12 * b[at(l)] * K(3, l));
      if (!same(i, l)) across[at(unit.unit2[at(l)])] += K(3, l) * a(l) * A(i, l);
    }
    for (const double other : across) sum -= 5.0 / 24 * other * other;
    c[at(i)] = -K(5, i) * a(i) * a(i) / 8 - K(7, i) * std::pow(a(i), 3) / 48 + 5.0 / 12 * K(4, i) * a(i) * b[at(i)] -
               5.0 / 24 * K(3, i) * b[at(i)] * b[at(i)] + K(3, i) * sum;
  }
  const double D = 1 / (1 - S);
  Matrix sgamma(g, 1), R2(q, q), R3(r, r);
  std::vector<std::vector<Matrix>> h(at(n));  // h_i^m
  for (int i = 0; i < n; ++i) {
    const int j = unit.unit2[at(i)];
    const Matrix xstar = xg[at(i)] - E[at(j)] * d[at(i)] - Gx * C3 * estar[at(i)];
    const double weight = -0.5 * K(3, i) * a(i) + D * c[at(i)];
    sgamma = sgamma + residual[at(i)] * xg[at(i)] + weight * xstar;
    Matrix X = Kp * C2[at(j)] * d[at(i)] * t(rho[at(j)]);
    for (int m = 0; m < unit.units; ++m) {
      const Matrix f = Kp * t(Q[at(m)]) * (M[at(j)] * d[at(i)] - C3 * e[at(i)]);
      h[at(i)].push_back(m == j ? f + Kp * C2[at(j)] * d[at(i)] : f);
      X = X + f * t(rho[at(m)]);
    }
    R2 = R2 + weight * X;
    R3 = R3 + weight * Kb * C3 * estar[at(i)] * t(gk);
  }
  for (int i = 0; i < n; ++i)
    for (int l = 0; l < n; ++l) {
      if (!same(i, l)) continue;
      const double weight = D * ((i == l ? F[at(i)] : 0) + 5.0 / 24 * K(3, i) * K(3, l) * a(i) * a(l));
      for (int m = 0; m < unit.units; ++m) R2 = R2 + weight * h[at(i)][at(m)] * t(h[at(l)][at(m)]);
      R3 = R3 + weight * Kb * C3 * estar[at(i)] * t(Kb * C3 * estar[at(l)]);
    }
  Matrix G(q, q);
  for (int j = 0; j < unit.units; ++j) G = G + u[at(j)] * t(u[at(j)]) + P[at(j)];
  R2 = R2 + 0.5 * Kp * (G - unit.units * Tp) * Kp;
  R3 = R3 + 0.5 * Kb * (v * t(v) + C3 - Tb) * Kb;
  std::vector<double> score;
  for (const Matrix& R : {R2, R3})
    for (int p = 0; p < R.rows; ++p)
      for (int o = 0; o <= p; ++o) score.push_back(p == o ? R(p, p) : R(p, o) + R(o, p));
  score.insert(score.end(), sgamma.cells.begin(), sgamma.cells.end());
  return score;
}

// And neither shorter form of c_i, which leaves something of the derivative out, passes for them.
TEST_P(Laplace, FactorisedSumsAreTheDoubleSums) {
  for (const double size : {0.1, 0.6, 1.2}) {
    Fixed made(GetParam(), size);
    double within = 0, first = 0;
    for (std::size_t k = 0; k < made.study.units.size(); ++k) {
      const std::vector<double> score = made.score(k), wanted = doublesums(made, k);
      const std::vector<double> ownunit = doublesums(made, k, true), firstpower = doublesums(made, k, false, true);
      for (std::size_t p = 0; p < score.size(); ++p) {
        EXPECT_NEAR(score[p], wanted[p], 1e-10 * std::max(1.0, std::fabs(wanted[p]))) << "element " << p;
        within = std::max(within, std::fabs(score[p] - ownunit[p]));
        first = std::max(first, std::fabs(score[p] - firstpower[p]));
      }
    }
    EXPECT_GT(within, 1e-6) << size;
    EXPECT_GT(first, 1e-6) << size;
  }
}

}  // namespace
