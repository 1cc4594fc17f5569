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
