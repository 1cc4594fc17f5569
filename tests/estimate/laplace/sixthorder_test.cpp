// Laplace-6 in the coordinates of the quadrature: its value against full matrices, its score against differences, and
// what its ascent ends at.
#include "estimate/quadrature/sixthorder.h"

#include <gtest/gtest.h>

#include <cmath>

#include "estimate/laplace/laplacestudy.h"
#include "estimate/quadrature/movingstudy.h"

namespace {

using namespace laplacestudy;

SphericalLikelihood sixthorder(Study& study, const Parameters& shape) {
  SphericalLikelihood likelihood = makespherical(Family::bernoulli, study.data.npi, study.data.nbeta, study.design,
                                                 study.data.source, shape, false, false, 2);
  likelihood.sixth = true;
  return likelihood;
}

double densevalue(const Study& study, const Parameters& x) {
  double sum = 0.5 * static_cast<double>(study.data.records) * std::log(6.2831853);
  for (const Level3Records& unit : study.units) sum += denselikelihood(denseunit(study, unit), x);
  return sum;
}

const Shape shapes[] = {{"intercepts", 1, {0}, {{0, false}}, 12, 5, 6, 3},
                        {"slopes", 2, {0, 1}, {{0, false}, {1, false}}, 12, 5, 6, 4},
                        {"other columns", 3, {1}, {{2, false}, {0, true}}, 12, 4, 5, 5},
                        {"few records", 3, {0, 1, 2}, {{0, false}}, 12, 4, 2, 6}};

TEST(SixthOrder, ValueIsThatOfFullMatricesAndTheScoreIsItsDerivative) {
  for (const Shape& shape : shapes) {
    Study study(shape);
    const Parameters x = study.parameters();
    SphericalLikelihood likelihood = sixthorder(study, x);
    const Array<double> point = pointof(likelihood.frame, x);
    EXPECT_NEAR(evaluatelaplace(likelihood, point).value, densevalue(study, x), 1e-6) << shape.name;
    movingstudy::expectlaplacescore(likelihood, point, 2e-6, shape.name);
  }
}

MovingResult fit(const Study& study, const Parameters& start, int threads = 2, MovingSettings settings = {}) {
  RecordSource source = study.data.source;
  settings.sixth = true;
  settings.points = 1;
  settings.threads = threads;
  return movingquadrature(settings, study.data.npi, study.data.nbeta, study.design, source, start, {});
}

double secondderivative(const Study& study, const Parameters& x, std::size_t i, std::size_t l, const Array<double>& h) {
  double sum = 0.0;
  for (const double a : {1.0, -1.0})
    for (const double b : {1.0, -1.0}) {
      Array<double> moved = elementsof(x);
      moved[i] += a * h[i];
      moved[l] += b * h[l];
      sum += a * b * densevalue(study, parametersof(x.q, x.r, x.g, moved));
    }
  return sum / (4.0 * h[i] * h[l]);
}

// A maximum inside over the elements that are free, and standard errors of the second derivatives, by full matrices.
void expectmaximum(const Study& study, const MovingResult& result, const std::vector<std::size_t>& free) {
  ASSERT_EQ(result.end, MovingEnd::converged);
  EXPECT_LT(result.distance, 0.001);
  EXPECT_LE(result.iterations, 12);
  const Parameters& x = result.parameters;
  EXPECT_NEAR(result.loglikelihood, densevalue(study, x), 1e-6);
  const std::size_t P = x.count();
  const int order = static_cast<int>(free.size());
  Array<double> h(P);
  for (const std::size_t i : free) h[i] = 0.02 * std::sqrt(result.covariance[i * P + i]);
  Matrix H(order, order);
  for (int i = 0; i < order; ++i) {
    Array<double> up = elementsof(x), down = elementsof(x);
    up[free[at(i)]] += h[free[at(i)]];
    down[free[at(i)]] -= h[free[at(i)]];
    const double rise =
        densevalue(study, parametersof(x.q, x.r, x.g, up)) - densevalue(study, parametersof(x.q, x.r, x.g, down));
    EXPECT_NEAR(rise / 0.04, 0.0, 0.01) << i;  // the score times the standard error
    for (int l = 0; l <= i; ++l) H(i, l) = H(l, i) = -secondderivative(study, x, free[at(i)], free[at(l)], h);
  }
  const Matrix V = inverse(H);
  for (int i = 0; i < order; ++i)
    EXPECT_NEAR(std::sqrt(result.covariance[free[at(i)] * (P + 1)] / V(i, i)), 1.0, 2e-3) << i;
}

std::vector<std::size_t> allbut(std::size_t P, std::vector<std::size_t> held) {
  std::vector<std::size_t> free;
  for (std::size_t i = 0; i < P; ++i)
    if (std::find(held.begin(), held.end(), i) == held.end()) free.push_back(i);
  return free;
}

// Reliabilities and modes by full matrices, too.
TEST(SixthOrder, EndsAtTheMaximumWithItsSecondDerivatives) {
  Study study({"wide", 2, {0, 1}, {{0, false}}, 60, 6, 8, 21});
  const MovingResult result = fit(study, study.parameters(0.2));
  const Parameters& x = result.parameters;
  expectmaximum(study, result, allbut(x.count(), {}));

  const Matrix Tb = matrixof(x.taubeta, 1, 1), Tp = matrixof(x.taupi, 2, 2);
  double rel3 = 0.0, rel2[2] = {0.0, 0.0}, largest = 0.0;
  int n2 = 0;
  for (const Level3Records& records : study.units) {
    const DenseUnit unit = denseunit(study, records);
    const DenseFit dense = densemode(unit, x);
    EXPECT_NEAR(result.laplace.v[at(records.k)], dense.b(0, 0), 1e-6);
    EXPECT_NEAR(result.laplace.u[records.firstunit * 2 + 1], dense.b(2, 0), 1e-6);
    largest = std::max(largest, std::fabs(std::log(1.0 - denseS(unit, dense))));
    const double information = 1.0 / dense.V(0, 0) - 1.0 / Tb(0, 0);
    rel3 += Tb(0, 0) / (1.0 / information + Tb(0, 0));
    for (int j = 0; j < records.units; ++j) {
      Matrix M(2, 2);
      int used = 0;
      for (int i = 0; i < unit.F.rows; ++i) {
        if (unit.unit2[at(i)] != j) continue;
        ++used;
        const double w = softplus(dense.eta[at(i)])[2];
        for (int a = 0; a < 2; ++a)
          for (int b = 0; b < 2; ++b) M(a, b) += w * unit.F(i, 1 + 2 * j + a) * unit.F(i, 1 + 2 * j + b);
      }
      if (used < 2) continue;
      ++n2;
      const Matrix own = inverse(M);
      for (int a = 0; a < 2; ++a) rel2[a] += Tp(a, a) / (own(a, a) + Tp(a, a));
    }
  }
  EXPECT_NEAR(result.laplace.largest, largest, 1e-6);
  EXPECT_EQ(result.warnings.size(), 1U) << largest;  // as its terms of the sixth order are not small
  EXPECT_EQ(result.reliabilities.units2, n2);
  EXPECT_EQ(result.reliabilities.units3, 60);
  EXPECT_NEAR(result.reliabilities.level3[0], rel3 / 60, 1e-6);
  for (int a = 0; a < 2; ++a) EXPECT_NEAR(result.reliabilities.level2[at(a)], rel2[a] / n2, 1e-5);

  // Outer products change the standard errors, and nothing else.
  MovingSettings settings;
  settings.outerproducts = true;
  const MovingResult outer = fit(study, study.parameters(0.2), 2, settings);
  EXPECT_EQ(elements(outer.parameters), elements(x));
  EXPECT_GT(std::fabs(outer.covariance[0] / result.covariance[0] - 1.0), 1e-3);
}

// Of diagonal matrices, from one that isn't.
TEST(SixthOrder, DiagonalMatrices) {
  MovingSettings settings;
  settings.diagonalpi = settings.diagonalbeta = true;
  Study study({"diagonal", 2, {0, 1}, {{0, false}}, 40, 5, 8, 23});
  const MovingResult result = fit(study, study.parameters(0.2), 2, settings);
  const Parameters& x = result.parameters;
  EXPECT_EQ(x.taupi[1], 0.0);
  EXPECT_TRUE(result.covariance[1 * (x.count() + 1)] == 0.0 && !result.edge[1]);
  expectmaximum(study, result, allbut(x.count(), {1}));
}

TEST(SixthOrder, AnyStartUnitAndNumberOfThreads) {
  Study study({"other starts", 2, {0, 1}, {{0, false}}, 40, 6, 8, 22});
  const MovingResult wanted = fit(study, study.parameters(), 1);
  ASSERT_EQ(wanted.end, MovingEnd::converged);
  // 400: S is above 1.
  SphericalLikelihood far = sixthorder(study, study.parameters(400.0));
  EXPECT_FALSE(evaluatelaplace(far, pointof(far.frame, study.parameters(400.0))).usable);
  for (const double size : {1e-8, 4.0, 400.0}) {
    const MovingResult result = fit(study, study.parameters(size), 3);
    ASSERT_EQ(result.end, MovingEnd::converged) << size;
    EXPECT_NEAR(result.loglikelihood, wanted.loglikelihood, 1e-5) << size;
  }
  study.batchsize = 7;
  const MovingResult threads = fit(study, study.parameters(), 3);
  EXPECT_EQ(elements(threads.parameters), elements(wanted.parameters));
  EXPECT_TRUE(std::equal(threads.covariance.begin(), threads.covariance.end(), wanted.covariance.begin()));

  const std::size_t P = wanted.parameters.count();
  for (const double scale : {1e-6, 1e6}) {
    Study scaled({"other starts", 2, {0, 1}, {{0, false}}, 40, 6, 8, 22});
    for (Level3Records& unit : scaled.units)
      for (std::size_t i = 1; i < unit.x.size(); i += 2) unit.x[i] *= scale;
    Parameters start = scaled.parameters();
    start.taupi[1] /= scale;
    start.taupi[2] /= scale;
    start.taupi[3] /= scale * scale;
    start.gamma[2] /= scale;
    const MovingResult result = fit(scaled, start);
    ASSERT_EQ(result.end, MovingEnd::converged) << scale;
    EXPECT_NEAR(result.loglikelihood, wanted.loglikelihood, 1e-7);
    const double slope = elements(result.parameters)[2] * scale * scale,
                 error = std::sqrt(result.covariance[2 * P + 2]);
    EXPECT_NEAR(slope / elements(wanted.parameters)[2], 1.0, 1e-6);
    EXPECT_NEAR(error * scale * scale / std::sqrt(wanted.covariance[2 * P + 2]), 1.0, 1e-5);
  }
}

// Outcomes without variation between units: from either side the same height, and no error for a variance of 0.
TEST(SixthOrder, VariancesOfZero) {
  int both = 0, one = 0;
  for (unsigned seed = 1; seed <= 8; ++seed) {
    Study study({"flat", 1, {0}, {{0, false}}, 12, 4, 5, seed, 0.0, 0.0});
    std::vector<double> heights;
    MovingResult last;
    for (const double size : {1e-9, 0.3, 4.0}) {
      last = fit(study, study.parameters(size));
      ASSERT_EQ(last.end, MovingEnd::converged) << seed << " " << size;
      EXPECT_TRUE(last.warnings.empty());
      heights.push_back(last.loglikelihood);
      EXPECT_EQ(last.edge[0], last.parameters.taupi[0] == 0.0);
      EXPECT_EQ(last.edge[1], last.covariance[1 * (last.parameters.count() + 1)] == 0.0);
    }
    for (const double height : heights) EXPECT_NEAR(height, heights[0], 1e-4) << seed;
    both += last.edge[0] && last.edge[1];
    one += last.edge[0] != last.edge[1];
  }
  EXPECT_TRUE(both > 0 && one > 0) << both << one;
}

}  // namespace
