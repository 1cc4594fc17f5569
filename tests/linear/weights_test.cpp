// Design weights: their normalisation by hand, and the weighted covariance against the sandwich on full matrices.
#include "linear/weights.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <numeric>

#include "linear/emstep.h"
#include "linear/weightedcovariance.h"
#include "study.h"

namespace {

using namespace kdr;

double meanof(const Array<double>& x, std::size_t n) {
  return std::accumulate(x.begin(), x.begin() + n, 0.0) / static_cast<double>(n);
}

// Level-2 unit of each record and level-3 unit of each level-2 unit of a study, in file order.
struct Places {
  std::vector<std::size_t> unitof, level3of;
  explicit Places(const study::Study& made) {
    std::size_t unit = 0;
    for (std::size_t k = 0; k < made.units.size(); ++k) {
      for (const int j : made.units[k].unit2) unitof.push_back(unit + static_cast<std::size_t>(j));
      for (int j = 0; j < made.units[k].units2; ++j) level3of.push_back(k);
      unit += static_cast<std::size_t>(made.units[k].units2);
    }
  }
};

TEST(Weights, Level3WeightsAloneReachEveryRecord) {
  study::Study made(4);
  run.out.wgtvar3 = 2;
  run.kind.weighted = true;
  normaliseweights();
  const Places places(made);
  const DesignWeights& weights = run.weights;
  EXPECT_NEAR(meanof(weights.weight1, weights.weight1.size()), 1.0, 1e-12);
  EXPECT_NEAR(meanof(weights.weight2, weights.weight2.size()), 1.0, 1e-12);
  EXPECT_NEAR(meanof(weights.weight3, weights.weight3.size()), 1.0, 1e-12);
  for (std::size_t i = 0; i < places.unitof.size(); ++i) {
    const std::size_t k = places.level3of[places.unitof[i]];
    EXPECT_NEAR(weights.weight1[i] / weights.weight1[0], run.mdm.level3[2 * k + 1] / run.mdm.level3[1], 1e-12);
  }
}

TEST(Weights, EachLevelIsRelativeToTheOneAbove) {
  study::Study made(4);
  run.out.wgtvar1 = 4;
  run.out.wgtvar2 = 2;
  run.out.wgtvar3 = 2;
  run.kind.weighted = true;
  normaliseweights();
  const Places places(made);
  const DesignWeights& weights = run.weights;
  // Within a level-2 unit the level-1 weights keep their ratios, within a level-3 unit the level-2 weights do; the sum
  // of the level-2 weights of a level-3 unit over their number is in the ratio of the level-3 weights.
  std::vector<double> sum(made.units.size()), n(made.units.size());
  for (std::size_t j = 0; j < places.level3of.size(); ++j) {
    sum[places.level3of[j]] += weights.weight2[j];
    n[places.level3of[j]] += 1;
  }
  for (std::size_t k = 1; k < sum.size(); ++k)
    EXPECT_NEAR(sum[k] / n[k] / (sum[0] / n[0]), weights.weight3[k] / weights.weight3[0], 1e-12);
}

TEST(Weights, RefusesWhatItCannotCompute) {
  struct Case {
    int wgtvar1, wgtvar3;
    double level3weight;
    const char* words;
  };
  const Case cases[] = {{4, 2, 1.0, "Unable to do only level-1 and level-3 weights"},
                        {0, 2, 0.0, "Level-3 Weights must be positive!"},
                        {2, 0, 1.0, "Weights must be positive!"}};  // X1 has both signs
  for (const Case& refused : cases) {
    study::Study made(4);
    run.kind.weighted = true;
    run.out.wgtvar1 = refused.wgtvar1;
    run.out.wgtvar3 = refused.wgtvar3;
    run.mdm.level3[1] = refused.level3weight;
    const auto stops = [] {
      dup2(STDERR_FILENO, STDOUT_FILENO);
      normaliseweights();
    };
    EXPECT_EXIT(stops(), testing::ExitedWithCode(100), refused.words);
  }
}

// The estimator solves M*'W(Y* - M* gamma) = 0 with rows scaled by f = sqrt(weight1), the random effects' columns by
// 1/sqrt of their weights, and W the inverse of the working covariance. Its covariance under the model is the sandwich
// with cov(Y*) = f (s I + Z1 T Z1' + Z2 L Z2') f.
TEST(Weights, CovarianceIsTheSandwichOfTheWorkingModel) {
  for (const bool allone : {false, true}) {
    study::Study made(5, 8);
    run.out.wgtvar1 = 4;
    run.out.wgtvar2 = 2;
    run.out.wgtvar3 = 2;
    run.kind.weighted = true;
    normaliseweights();
    if (allone)
      for (Array<double>* level : {&run.weights.weight1, &run.weights.weight2, &run.weights.weight3}) level->fill(1.0);
    const Array<double> weight1 = run.weights.weight1.copy();
    Pass pass;
    study::prepare(pass);
    const dense::Parameters x =
        study::setparameters({1.0, 0.2, 0.2, 0.5}, {0.7, 0.1, 0.1, 0.4}, 1.5, {1, 0, 0, 0, 2, 0});
    Likelihood likelihood{0, 0};
    EmSums em;
    emstep(pass, likelihood, em, nullptr);
    std::copy(x.T.cells.begin(), x.T.cells.end(), run.est.taupi.data());
    std::copy(x.L.cells.begin(), x.L.cells.end(), run.est.taubeta.data());
    const Array<double> covariance = weightedcovariance(pass);

    dense::Matrix A(6, 6), B(6, 6);
    std::size_t record = 0, unit = 0;
    for (std::size_t k = 0; k < made.units.size(); ++k) {
      dense::Unit star = made.units[k];
      const dense::Unit& u = made.units[k];
      dense::Matrix F2(u.Y.rows, u.Y.rows);
      for (int i = 0; i < u.Y.rows; ++i, ++record) {
        const double f = std::sqrt(weight1[record]);
        const double w2 = run.weights.weight2[unit + static_cast<std::size_t>(u.unit2[static_cast<std::size_t>(i)])];
        F2(i, i) = f * f;
        for (int c = 0; c < 6; ++c) star.M(i, c) *= f;
        for (int c = 0; c < 2; ++c) {
          star.Z1(i, c) *= f / std::sqrt(w2);
          star.Z2(i, c) *= f / std::sqrt(run.weights.weight3[k]);
        }
      }
      const dense::Matrix W = dense::inverse(dense::V(star, x));
      dense::Unit truth = u;  // f times the columns, without the scales of the random effects
      for (int i = 0; i < u.Y.rows; ++i)
        for (int c = 0; c < 2; ++c) {
          truth.Z1(i, c) *= std::sqrt(F2(i, i));
          truth.Z2(i, c) *= std::sqrt(F2(i, i));
        }
      dense::Matrix C = dense::V(truth, {x.T, x.L, 0.0}) + x.s * F2;
      A = A + t(star.M) * W * star.M;
      B = B + t(star.M) * W * C * W * star.M;
      unit += static_cast<std::size_t>(u.units2);
    }
    const dense::Matrix Ai = dense::inverse(A), sandwich = Ai * B * Ai;
    for (int i = 0; i < 6; ++i)
      for (int j = 0; j < 6; ++j) {
        EXPECT_NEAR(covariance[6 * i + j], sandwich(i, j), 1e-9);
        if (allone) {
          EXPECT_NEAR(covariance[6 * i + j], x.s * run.est.vgamma[6 * i + j], 1e-9);
        }
      }
  }
}

}  // namespace
