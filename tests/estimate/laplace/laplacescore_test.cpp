// Likelihood and score of the sixth-order Laplace approximation against dense computations from their definitions.
#include <gtest/gtest.h>

#include <functional>

#include "estimate/laplace/laplacestudy.h"

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

// The likelihood at tight modes.
struct Fixed {
  Study study;
  Parameters x;
  LaplaceSettings settings;
  LaplaceLikelihood likelihood;
  TauInverses inverses;
  explicit Fixed(const Shape& shape, double size = 0.6)
      : study(shape), x(study.parameters(size)), likelihood(study.likelihood(settings)) {
    settings.stopmodes = 1e-9;
    ModeSums sums;
    EXPECT_TRUE(invertaus(x, inverses));
    EXPECT_EQ(findmodes(study.data, settings, x, inverses, {}, likelihood.modes, sums), EngineFailure::none);
  }
  Array<double> rel2, rel3;  // of the unit that was scored last
  UnitReliability reliability;
  std::vector<double> score(std::size_t k) {
    ScoreWork work = makescorework(study.data, x.q, x.r);
    std::vector<double> s(x.count());
    rel2.reset(at(x.q));
    rel3.reset(at(x.r));
    reliability = {rel2.data(), rel3.data()};
    EXPECT_TRUE(unitscore(study.data, x, inverses, likelihood.modes, study.units[k], work, s.data(), reliability));
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
    const DenseFit fit = densemode(denseunit(made.study, unit), made.x);
    for (int m = 0; m < r; ++m) {
      EXPECT_NEAR(made.likelihood.modes.v[k * at(r) + at(m)], fit.b(m, 0), 1e-10);
      for (int l = 0; l < r; ++l)
        EXPECT_NEAR(made.likelihood.modes.C3[k * square(r) + at(m * r + l)], fit.V(m, l), 1e-9) << "cov v";
    }
    for (int j = 0; j < unit.units; ++j)
      for (int a = 0; a < q; ++a)
        EXPECT_NEAR(made.likelihood.modes.u[(unit.firstunit + at(j)) * at(q) + at(a)], fit.b(r + j * q + a, 0), 1e-10);
  }
}

TEST_P(Laplace, LikelihoodIsThatOfTheDenseDefinition) {
  for (const double size : {0.05, 0.6, 1.5}) {
    Fixed made(GetParam(), size);
    double wanted = 0;
    for (const Level3Records& unit : made.study.units) wanted += denselikelihood(denseunit(made.study, unit), made.x);
    const Evaluation there = laplacevalue(made.likelihood, elementsof(made.x));
    ASSERT_TRUE(there.usable);
    EXPECT_NEAR(there.value, wanted, 1e-8) << size;
  }
}

// The correction S_k from the tensors of the third to sixth derivatives of the joint log-density, contracted with the
// inverse V of the information; the square of the third is taken per level-2 unit:
//   S = -(1/8) T4_abcd V_ab V_cd - (1/48) T6_abcdef V_ab V_cd V_ef - (5/24) sum_j T3j_abc T3j_def V_ab V_cd V_ef
TEST_P(Laplace, CorrectionIsTheContractionOfTheDerivativeTensors) {
  Fixed made(GetParam());
  for (std::size_t k = 0; k < made.study.units.size(); ++k) {
    const DenseUnit unit = denseunit(made.study, made.study.units[k]);
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
    const UnitLikelihood sums =
        unitlikelihood(made.study.data, made.x, made.likelihood.modes, made.study.units[k], work);
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
      const DenseUnit unit = denseunit(made.study, made.study.units[k]);
      const std::vector<double> score = made.score(k);
      for (std::size_t p = 0; p < made.x.count(); ++p) {
        const auto moved = [&](double h) {
          Array<double> there = elementsof(made.x);
          there[p] += h;
          return denselikelihood(unit, parametersof(made.x.q, made.x.r, made.x.g, there));
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
    const DenseUnit unit = denseunit(made.study, made.study.units[k]);
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
            for (int b = 0; b < q; ++b) I(a, b) += w * unit.F(i, r + q * j + a) * unit.F(i, r + q * j + b);
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

}  // namespace
