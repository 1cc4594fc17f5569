// Laplace-6 in the coordinates of the quadrature: its value against full matrices, its score against differences, and
// what its ascent ends at.
#include "estimate/quadrature/sixthorder.h"

#include <gtest/gtest.h>

#include <cmath>

#include "estimate/laplace/laplacestudy.h"
#include "estimate/quadrature/movingquadrature.h"
#include "estimate/quadrature/onepoint.h"

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
    const Evaluation centre = evaluatelaplace(likelihood, point);
    ASSERT_TRUE(centre.usable) << shape.name;
    EXPECT_NEAR(centre.value, densevalue(study, x), 1e-6) << shape.name;
    for (std::size_t i = 0; i < point.size(); ++i) {
      constexpr double h = 1e-4;
      Array<double> up = point.copy(), down = point.copy();
      up[i] += h;
      down[i] -= h;
      const double slope =
          (evaluatelaplace(likelihood, up).value - evaluatelaplace(likelihood, down).value) / (2.0 * h);
      EXPECT_NEAR(centre.score[i], slope, 2e-6 * std::max(1.0, std::fabs(slope))) << shape.name << " " << i;
    }
  }
}

}  // namespace
