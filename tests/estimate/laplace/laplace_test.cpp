// The iterations of the sixth-order Laplace approximation: what they converge to, and each way that one can go.
#include "estimate/laplace/laplace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "estimate/laplace/laplacestudy.h"
#include "estimate/likelihood/marks.h"

namespace {

using namespace laplacestudy;
using marks::Marks;

const Shape wide{"wide", 2, {0, 1}, {{0, false}}, 80, 6, 8, 21};

LaplaceResult fit(const Study& study, const LaplaceSettings& settings, double size = 0.6, double quasi = -1e5) {
  const auto [u, v] = study.modes();
  return runlaplace(study.data, settings, study.parameters(size), u, v, quasi);
}

TEST(LaplaceRun, EndsAtTheMaximumOfTheLikelihood) {
  Shape shape = wide;
  shape.units3 = 200;
  const Study study(shape);
  LaplaceSettings settings;
  settings.stopmodes = 1e-9;
  Marks told;
  told.listen(settings.engine);
  const LaplaceResult result = fit(study, settings);
  ASSERT_EQ(result.fit.end, EngineEnd::estimated) << told.letters;
  EXPECT_EQ(told.count('i'), result.fit.iteration);
  EXPECT_TRUE(result.fit.converged);
  double best = 0;
  std::vector<DenseUnit> units;
  for (const Level3Records& unit : study.units) units.push_back(denseunit(study, unit));
  for (const DenseUnit& unit : units) best += denselikelihood(unit, result.fit.estimates);
  EXPECT_NEAR(result.fit.loglik, best, 1e-6);
  const std::size_t P = result.fit.estimates.count();
  const Array<double>& V = result.fit.covariance;
  for (std::size_t p = 0; p < P; ++p)
    for (const double side : {-1.0, 1.0}) {
      Array<double> moved = elementsof(result.fit.estimates);
      moved[p] += side * 0.2 * std::sqrt(V[p * P + p]);
      double L = 0;
      for (const DenseUnit& unit : units) L += denselikelihood(unit, parametersof(study.q, study.r, study.g, moved));
      EXPECT_LT(L, best) << "element " << p;
    }
  EXPECT_EQ(result.nrel3, 200);
  EXPECT_LT(result.nrel2, static_cast<int>(study.data.units2));  // units of one record have no slope
  for (const double value : result.rel2) EXPECT_TRUE(value > 0 && value < 1);
  EXPECT_EQ(result.fit.vgamma[0], V[(P - at(study.g)) * (P + 1)]);
  EXPECT_EQ(result.fit.setaubeta[0], std::sqrt(result.fit.taucovariance[15]));
}

TEST(LaplaceRun, ThreadsAndBatchesChangeNoByte) {
  std::vector<std::vector<double>> found;
  Shape shape = wide;
  shape.records = 40;
  for (const auto& [threads, batch] : {std::pair(1, 80), {3, 80}, {2, 7}}) {
    Study study(shape);
    study.batchsize = at(batch);
    LaplaceSettings settings;
    settings.engine.threads = threads;
    settings.engine.iterations = 3;
    const LaplaceResult result = fit(study, settings);
    ASSERT_EQ(result.fit.end, EngineEnd::estimated);
    std::vector<double> all = elements(result.fit.estimates);
    all.push_back(result.fit.loglik);
    for (const Array<double>* values : {&result.fit.covariance, &result.rel2, &result.rel3, &result.u, &result.v})
      all.insert(all.end(), values->begin(), values->end());
    found.push_back(std::move(all));
  }
  for (const auto& other : found)
    EXPECT_EQ(std::memcmp(other.data(), found[0].data(), found[0].size() * sizeof(double)), 0);
}

class LaplaceIteration : public testing::Test {
 protected:
  Study study{wide};
  Marks told;
  LaplaceSettings settings;
  LaplaceLikelihood likelihood = study.likelihood(settings);
  RidgedProblem problem = laplaceproblem(likelihood);
  RidgedAscent ascent{settings.ascent, problem, elementsof(study.parameters()), -1e9};
  LaplaceIteration() { told.listen(settings.engine); }
  // One iteration; `limit` when it has made a step.
  AscentEnd step() {
    told.clear();
    return climb(ascent, ascent.iterations + 1);
  }
};

TEST_F(LaplaceIteration, FailedModesFailTheIterationAndTheTrial) {
  settings.maxsweeps = 1;
  EXPECT_EQ(step(), AscentEnd::unusable);
  EXPECT_EQ(likelihood.failure, EngineFailure::unsettled);
  EXPECT_EQ(told.letters, "p");
  EXPECT_EQ(told.events[0].number, 1);
  EXPECT_FALSE(laplacevalue(likelihood, ascent.now).usable);
  Array<double> singular = ascent.now.copy();
  singular[0] = 1.0;
  singular[1] = 2.0;
  singular[2] = 4.0;
  settings.maxsweeps = 200;
  EXPECT_FALSE(laplacevalue(likelihood, singular).usable);
}

// A source that breaks off ends the iterations at once, not by another ridge.
TEST_F(LaplaceIteration, DataThatBreakOffFailIt) {
  ASSERT_EQ(step(), AscentEnd::limit);
  study.data.source.broken = [](void*) { return true; };
  EXPECT_EQ(step(), AscentEnd::unusable);
  EXPECT_EQ(likelihood.failure, EngineFailure::data);
  EXPECT_EQ(fit(study, settings).fit.failure, EngineFailure::data);
  EXPECT_EQ(told.count('*'), 0);
}

// Outcomes without any variation between units: the steps for the variances point out of the parameter space.
TEST(LaplaceRun, EndsWhereNoStepStaysInside) {
  Shape flat = wide;
  flat.spread = 0.0;
  const Study study(flat);
  const LaplaceResult result = fit(study, {}, 1e-5, -1.0);
  EXPECT_EQ(result.fit.end, EngineEnd::failed);
  EXPECT_EQ(result.fit.failure, EngineFailure::nostep);
  EXPECT_EQ(elements(result.fit.estimates), elements(study.parameters(1e-5)));
}

// A run that ends with a ridge in use: the last evaluation moves nothing, and the standard errors are those of the
// information without a ridge, the sum of the outer products of the units' scores.
TEST(LaplaceRun, RidgeAtTheEndCallsForAFinalCall) {
  const Study study({"ridged", 1, {0}, {{0, false}}, 40, 6, 8, 9});
  LaplaceSettings settings;
  Marks told;
  told.listen(settings.engine);
  const LaplaceResult result = fit(study, settings);
  ASSERT_EQ(result.fit.end, EngineEnd::estimated);
  EXPECT_TRUE(result.finalcall);
  EXPECT_EQ(told.count('i'), result.fit.iteration - 1);
  const int P = static_cast<int>(result.fit.estimates.count());
  LaplaceLikelihood likelihood = laplacelikelihood(study.data, settings, result.fit.estimates, result.u, result.v);
  ASSERT_TRUE(laplacescore(likelihood, elementsof(result.fit.estimates)).usable);
  Matrix H(P, P);
  TauInverses inverses;
  ASSERT_TRUE(invertaus(result.fit.estimates, inverses));
  ScoreWork work = makescorework(study.data, study.q, study.r);
  for (const Level3Records& unit : study.units) {
    Matrix s(P, 1);
    Array<double> rel2(at(study.q)), rel3(at(study.r));
    UnitReliability reliability{rel2.data(), rel3.data()};
    unitscore(study.data, result.fit.estimates, inverses, likelihood.modes, unit, work, s.cells.data(), reliability);
    H = H + s * t(s);
  }
  const Matrix product = H * matrixof(result.fit.covariance, P, P);
  for (int i = 0; i < P; ++i)
    for (int l = 0; l < P; ++l) EXPECT_NEAR(product(i, l), i == l, 1e-4);
}

// With fewer level-3 units than parameters the information is singular: a ridge is needed, the final call fails.
TEST(LaplaceRun, RaisedRidgeGoesOnAndSingularFinalInformationFails) {
  const Study study({"few", 1, {0}, {{0, false}}, 4, 6, 8, 41});
  LaplaceSettings settings;
  settings.stopmacro = 1e30;  // every test of convergence passes
  Marks told;
  told.listen(settings.engine);
  const LaplaceResult result = fit(study, settings);
  EXPECT_EQ(result.fit.end, EngineEnd::failed);
  std::string steps = told.steps();
  std::erase(steps, 'h');
  EXPECT_EQ(steps, "*i/i");  // the first raised the ridge, the second lowered it
}

// Level-2 units of one record with a rare outcome: the sum of their corrections exceeds 1. The score is then that of
// the first-order approximation.
TEST(LaplaceRun, LikelihoodWithoutALogarithmIsAFailedTrial) {
  const Study study({"rare", 1, {0}, {{0, false}}, 3, 10, 1, 51, -4.0}, false);
  const Parameters x = study.parameters(8.0, -4.0);
  LaplaceSettings settings;
  settings.stopmodes = 1e-9;
  Marks told;
  told.listen(settings.engine);
  LaplaceLikelihood likelihood = study.likelihood(settings);
  EXPECT_FALSE(laplacevalue(likelihood, elementsof(x)).usable);
  EXPECT_EQ(told.count('p'), 0);
  ScoreWork work = makescorework(study.data, study.q, study.r);
  TauInverses inverses;
  ModeSums sums;
  ASSERT_TRUE(invertaus(x, inverses));
  ASSERT_EQ(findmodes(study.data, settings, x, inverses, {}, likelihood.modes, sums), EngineFailure::none);
  double rel2 = 0, rel3 = 0;
  UnitReliability reliability{&rel2, &rel3};
  std::vector<double> score(x.count());
  EXPECT_FALSE(unitscore(study.data, x, inverses, likelihood.modes, study.units[0], work, score.data(), reliability));
  for (std::size_t p = 0; p < score.size(); ++p) {
    const auto moved = [&](double h) {
      Array<double> there = elementsof(x);
      there[p] += h;
      return denselikelihood(denseunit(study, study.units[0]), parametersof(x.q, x.r, x.g, there), 0.0);
    };
    EXPECT_NEAR(score[p], (moved(1e-3) - moved(-1e-3)) / 2e-3, 1e-6) << p;
  }
}

TEST(LaplaceRun, LimitAndKeyboardEndTheIterations) {
  const Study study(wide);
  LaplaceSettings settings;
  Marks told;
  told.listen(settings.engine);
  settings.engine.iterations = 0;
  LaplaceResult result = fit(study, settings, 0.6, -123.0);
  EXPECT_EQ(told.letters, "b");
  EXPECT_EQ(result.fit.end, EngineEnd::noiterations);
  EXPECT_EQ(result.fit.loglik, -123.0);
  EXPECT_EQ(elements(result.fit.estimates), elements(study.parameters()));

  settings.engine.iterations = 1;
  told.clear();
  result = fit(study, settings);
  EXPECT_EQ(result.fit.end, EngineEnd::estimated);
  EXPECT_EQ(result.fit.iteration, 1);
  EXPECT_EQ(told.count('i'), 1);
  EXPECT_EQ(told.count('l'), 1);
  EXPECT_FALSE(result.fit.converged);
  EXPECT_EQ(result.fit.vgamma.size(), square(study.g));

  // Asked at the end of the mode sweeps and of the iteration; the iteration under way is finished.
  int asked = 0;
  settings.engine.iterations = 50;
  settings.engine.stopasked = [&] { return ++asked == 4; };
  told.clear();
  result = fit(study, settings);
  EXPECT_EQ(result.fit.end, EngineEnd::estimated);
  EXPECT_EQ(result.fit.iteration, 2);
  EXPECT_EQ(asked, 6);
  EXPECT_EQ(told.count('l'), 0);
}

}  // namespace
