// Wald tests of contrasts: their statistics, whatever the units, and those of a series.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "estimate/inference/modelstatistics.h"
#include "estimate/inference/teststatistics.h"

namespace kdr {
namespace {

Array<double> arrayof(const std::vector<double>& values) {
  Array<double> array(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) array[i] = values[i];
  return array;
}

// One hypothesis of r contrasts.
EffectTable tested(int r, const std::vector<double>& contrasts, const Array<double>& gamma, const Array<double>& V,
                   const Between* between = nullptr) {
  Model model;
  model.nhypotheses = true;
  model.hypothesisrows.reset(2);
  model.hypothesisrows[0] = static_cast<short>(r);
  model.contrasts = arrayof(contrasts);
  EffectTable table;
  addhypotheses(table, model, gamma, V, between);
  return table;
}

const std::vector<double> estimates = {1.5, -0.75, 2.0};
const std::vector<double> covariance = {0.5, 0.2, -0.1, 0.2, 0.4, 0.05, -0.1, 0.05, 0.3};

// e' W^-1 e = 2720/111 for (1, -1, 0) and (0, 1, 1), in fractions: e = (9/4, 5/4), W = ((1/2, -7/20), (-7/20, 4/5)).
// A predictor in other units has its effect divided, and the contrasts multiplied; a contrast of other size is the
// same.
TEST(Wald, UnitsDoNotMatter) {
  const double want = 2720.0 / 111.0;
  for (const double unit : {1e-7, 1e-3, 1.0, 1e3, 1e7})
    for (const double size : {1e-8, 1.0, 1e8}) {
      Array<double> gamma = arrayof(estimates), V = arrayof(covariance);
      gamma[1] /= unit;
      for (std::size_t i = 0; i < 3; ++i) {
        V[3 + i] /= unit;
        V[3 * i + 1] /= unit;
      }
      const EffectTable table = tested(2, {1, -unit, 0, 0, size * unit, size}, gamma, V);
      ASSERT_TRUE(table.hypotheses[0].computed) << unit << " " << size;
      EXPECT_NEAR(table.hypotheses[0].chisquare.statistic / want, 1.0, 1e-10) << unit << " " << size;
      EXPECT_NEAR(table.hypotheses[0].errors[0], std::sqrt(0.5), 1e-10);
    }
}

TEST(Wald, DependentContrastsAreFound) {
  const Array<double> gamma = arrayof(estimates), V = arrayof(covariance);
  EXPECT_FALSE(tested(2, {1, 0, 1, 1e-6, 0, 1e-6}, gamma, V).hypotheses[0].computed);
  EXPECT_FALSE(tested(3, {1, 0, 1, 0, 1, 0, 1e5, 1, 1e5}, gamma, V).hypotheses[0].computed);
  EXPECT_FALSE(tested(1, {0, 0, 0}, gamma, V).hypotheses[0].computed);
  EXPECT_TRUE(tested(2, {1, 0, 0, 1, 1e-4, 0}, gamma, V).hypotheses[0].computed);
}

// Li, Raghunathan and Rubin (1991) by numpy: tests/reference/pooledtests.py.
TEST(Wald, OfASeries) {
  const Array<double> gamma = arrayof(estimates), within = arrayof(covariance),
                      spread = arrayof({0.1, 0.02, 0.0, 0.02, 0.06, 0.01, 0.0, 0.01, 0.05});
  Array<double> total = within.copy();
  for (std::size_t i = 0; i < 9; ++i) total[i] += spread[i];
  const struct {
    int M, r;
    std::vector<double> contrasts;
    double statistic, df2, p;
  } cases[] = {{5, 2, {1.0, -1.0, 0.0, 0.0, 1.0, 1.0}, 19.97063142437592, 78.08290816326532, 0.0001375673464207426},
               {3, 1, {0.0, 1.0, 0.0}, 1.2228260869565217, 117.55555555555557, 0.27106468831381547},
               {20,
                3,
                {1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0},
                31.94775357385977,
                1777.9655747631512,
                6.133289575287786e-07},
               {2, 2, {1.0, -1.0, 0.0, 0.0, 1.0, 1.0}, 19.97063142437592, 43.81717687074829, 0.00026721220028966714}};
  for (const auto& c : cases) {
    const Between between{within, spread, c.M};
    const ChiSquareTest test = tested(c.r, c.contrasts, gamma, total, &between).hypotheses[0].chisquare;
    EXPECT_NEAR(test.statistic, c.statistic, 1e-9);
    EXPECT_NEAR(test.df2 / c.df2, 1.0, 1e-9);
    EXPECT_NEAR(test.p / c.p, 1.0, 1e-8);
  }
}

// What is held at 0, given, or equal to another element is no parameter.
TEST(Parameters, HeldElementsAreNone) {
  Model model;
  model.coef.ngamma = 4;
  model.coef.ntaupi = 3;
  model.coef.ntaubeta = 2;
  EXPECT_EQ(parametercount(model, 1), 4 + 6 + 3 + 1);
  model.restrictions.haveesttau2 = model.restrictions.havecontau3 = true;
  model.restrictions.esttau2.reset(9);
  model.restrictions.esttau2.fill(absent);
  model.restrictions.esttau2[1] = model.restrictions.esttau2[3] = 0.5;  // one covariance is given
  model.restrictions.contau3.reset(3);
  model.restrictions.contau3[0] = 1;
  model.restrictions.contau3[2] = -1;  // both variances are equal
  EXPECT_EQ(parametercount(model, 1), 4 + 5 + 2 + 1);
  EXPECT_EQ(parametercount(model, 10), 4 + 50 + 2 + 1);
}

}  // namespace
}  // namespace kdr
