// The iterations of the sixth-order Laplace approximation: what they converge to, and each way that one can go.
#include "estimate/laplace/laplace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "estimate/laplace/laplacestudy.h"

namespace {

using namespace laplacestudy;

const Shape wide{"wide", 2, {0, 1}, {{0, false}}, 80, 6, 8, 21};

// What `work` puts on the console.
template <class Work>
std::string console(Work work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}
std::ptrdiff_t count(const std::string& text, char c) { return std::count(text.begin(), text.end(), c); }

LaplaceState copyof(const LaplaceState& state) {
  LaplaceState copy;
  copy.now = state.now.copy();
  copy.modes.u = state.modes.u.copy();
  copy.modes.v = state.modes.v.copy();
  copy.modes.C2 = state.modes.C2.copy();
  copy.modes.Q = state.modes.Q.copy();
  copy.modes.H3 = state.modes.H3.copy();
  copy.modes.C3 = state.modes.C3.copy();
  copy.ridge = state.ridge;
  copy.iteration = state.iteration;
  copy.loglik = state.loglik;
  copy.left = state.left;
  return copy;
}
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
  LaplaceResult result;
  const std::string shown = console([&] { result = fit(study, settings); });
  ASSERT_EQ(result.end, LaplaceEnd::estimated) << shown;
  EXPECT_NE(shown.find("The likelihood at Laplace iteration 1 is -"), std::string::npos);
  EXPECT_TRUE(result.converged);
  double best = 0;
  std::vector<DenseUnit> units;
  for (const Level3Records& unit : study.units) units.push_back(denseunit(study, unit));
  for (const DenseUnit& unit : units) best += denselikelihood(unit, result.estimates);
  EXPECT_NEAR(result.loglik, best, 1e-6);
  const std::size_t P = result.estimates.count();
  for (std::size_t p = 0; p < P; ++p)
    for (const double side : {-1.0, 1.0}) {
      std::vector<double> delta(P);
      delta[p] = side * 0.2 * std::sqrt(result.inverse[p * P + p]);
      Parameters there = result.estimates.copy();
      addstep(there, delta.data());
      double L = 0;
      for (const DenseUnit& unit : units) L += denselikelihood(unit, there);
      EXPECT_LT(L, best) << "element " << p;
    }
  EXPECT_EQ(result.nrel3, 200);
  EXPECT_LT(result.nrel2, static_cast<int>(study.data.units2));  // units of one record have no slope
  for (const double value : result.rel2) EXPECT_TRUE(value > 0 && value < 1);
  EXPECT_NEAR(result.vgamma[0], std::pow(std::sqrt(result.inverse[(P - at(study.g)) * (P + 1)]), 2), 1e-12);
  EXPECT_NEAR(result.setaubeta[0], std::sqrt(result.taucovariance[15]), 1e-12);
}

TEST(LaplaceRun, ThreadsAndBatchesChangeNoByte) {
  std::vector<std::vector<double>> found;
  Shape shape = wide;
  shape.records = 40;
  for (const auto& [threads, batch] : {std::pair(1, 80), {3, 80}, {2, 7}}) {
    Study study(shape);
    study.batchsize = at(batch);
    LaplaceSettings settings;
    settings.threads = threads;
    settings.laplaceit = 3;
    LaplaceResult result;
    console([&] { result = fit(study, settings); });
    ASSERT_EQ(result.end, LaplaceEnd::estimated);
    std::vector<double> all = elements(result.estimates);
    all.push_back(result.loglik);
    for (const Array<double>* values : {&result.inverse, &result.rel2, &result.rel3, &result.u, &result.v})
      all.insert(all.end(), values->begin(), values->end());
    found.push_back(std::move(all));
  }
  for (const auto& other : found)
    EXPECT_EQ(std::memcmp(other.data(), found[0].data(), found[0].size() * sizeof(double)), 0);
}

// One level-2 unit per level-3 unit and two random intercepts: the integral has one dimension, tau = taupi + taubeta,
// and can be taken by the trapezoid rule.
TEST(LaplaceRun, SixthOrderIsNearerToTheIntegralThanFirst) {
  const Study study({"single", 1, {0}, {{0, false}}, 40, 1, 9, 31, -0.5});
  for (const double size : {0.4, 1.0}) {
    const Parameters x = study.parameters(size);
    const double tau = x.taupi[0] + x.taubeta[0];
    double first = 0, sixth = 0, integral = 0;
    for (const Level3Records& records : study.units) {
      const DenseUnit unit = denseunit(study, records);
      first += denselikelihood(unit, x, 0.0);
      sixth += denselikelihood(unit, x);
      const Matrix fixed = unit.X * matrixof(x.gamma, x.g, 1);
      double sum = 0;
      constexpr double step = 0.02;
      for (double t = -12; t < 12; t += step) {
        double log = -0.5 * t * t / tau;
        for (int i = 0; i < unit.X.rows; ++i)
          log += unit.y[at(i)] * (fixed(i, 0) + t) - std::log1p(std::exp(fixed(i, 0) + t));
        sum += std::exp(log) * step;
      }
      integral += std::log(sum / std::sqrt(2 * M_PI * tau)) - 0.5 * unit.X.rows * std::log(6.2831853);
    }
    EXPECT_LT(std::fabs(sixth - integral), 0.25 * std::fabs(first - integral))
        << first << ' ' << sixth << ' ' << integral;
  }
}

class LaplaceIteration : public testing::Test {
 protected:
  Study study{wide};
  LaplaceSettings settings;
  LaplaceState state = study.state(study.parameters());
  LaplaceStep step(LaplaceState& from, std::string* shown = nullptr, bool final = false) {
    LaplaceStep result{};
    const std::string text = console([&] { result = laplace6iterate(study.data, settings, from, final); });
    if (shown != nullptr) *shown = text;
    return result;
  }
};

TEST_F(LaplaceIteration, TwoMayLowerTheLikelihoodAndTheThirdMayNot) {
  state.loglik = 1e9;
  for (int iteration = 1; iteration <= 2; ++iteration) {
    ASSERT_EQ(step(state), LaplaceStep::done);
    EXPECT_LT(state.loglik, 0);
    EXPECT_EQ(state.iteration, iteration + 1);
    EXPECT_EQ(state.ridge.value, -1.0);
    state.loglik = 1e9;
  }
  const std::vector<double> before = elements(state.now);
  const LaplaceState kept = copyof(state);
  std::string shown;
  EXPECT_EQ(step(state, &shown), LaplaceStep::notinverted);
  EXPECT_NE(shown.find("*Unable to invert H in Laplace\n"), std::string::npos);
  EXPECT_EQ(elements(state.now), before);
  EXPECT_EQ(state.iteration, 3);
  EXPECT_DOUBLE_EQ(state.ridge.value, 0.01 * std::pow(10, count(shown, '*')));
  EXPECT_GT(state.ridge.value, 1e20);  // the ratio cannot grow: the ridges that were added are in the diagonal
  for (std::size_t i = 0; i < kept.modes.u.size(); ++i) EXPECT_NEAR(state.modes.u[i], kept.modes.u[i], 1e-3);
}

// On these outcomes the plain step of the fifth iteration goes too far.
TEST_F(LaplaceIteration, RidgeIsRaisedUntilTheLikelihoodDoesNotFallAndLoweredAfterwards) {
  std::string shown;
  double before = 0;
  do {
    ASSERT_LT(state.iteration, 10);
    before = state.loglik;
    ASSERT_EQ(step(state, &shown), LaplaceStep::done);
    EXPECT_EQ(count(shown, '/'), 0);
  } while (count(shown, '*') == 0);
  EXPECT_GT(state.iteration, 3);
  EXPECT_GE(state.loglik, before);
  EXPECT_DOUBLE_EQ(state.ridge.value, 0.01 * std::pow(10, count(shown, '*')));
  const std::size_t P = state.now.count();
  const std::vector<double> from = elements(state.previous), to = elements(state.now);
  for (std::size_t i = 0; i < P; ++i) {
    double delta = 0;
    for (std::size_t l = 0; l < P; ++l) delta += state.inverse[i * P + l] * state.score[l];
    EXPECT_NEAR(to[i] - from[i], delta, 1e-12) << "one whole step from where the iteration began";
  }
  const double ridge = state.ridge.value;
  ASSERT_EQ(step(state, &shown), LaplaceStep::done);
  EXPECT_EQ(count(shown, '*'), 0);
  EXPECT_EQ(count(shown, '/'), 1);
  EXPECT_DOUBLE_EQ(state.ridge.value, ridge / 10.0);
}

TEST_F(LaplaceIteration, FinalCallReportsWithoutRidgeAndMovesNothing) {
  ASSERT_EQ(step(state), LaplaceStep::done);
  LaplaceState final = copyof(state);
  final.ridge.value = 5.0;
  std::string shown;
  ASSERT_EQ(step(final, &shown, true), LaplaceStep::done);
  EXPECT_EQ(shown.find("The likelihood"), std::string::npos);
  EXPECT_EQ(elements(final.now), elements(state.now));
  EXPECT_EQ(final.iteration, 2);
  // The inverse is that of the information without a ridge: the sum of the outer products of the units' scores.
  const int P = static_cast<int>(final.now.count());
  Matrix H(P, P);
  TauInverses inverses;
  ASSERT_TRUE(invertaus(final.now, inverses));
  ScoreWork work = makescorework(study.data, study.q, study.r);
  for (const Level3Records& unit : study.units) {
    Matrix s(P, 1);
    Array<double> rel2(at(study.q)), rel3(at(study.r));
    UnitReliability reliability{rel2.data(), rel3.data()};
    unitscore(study.data, final.now, inverses, final.modes, unit, work, s.cells.data(), reliability);
    H = H + s * t(s);
  }
  const Matrix product = H * matrixof(final.inverse, P, P);
  for (int i = 0; i < P; ++i)
    for (int l = 0; l < P; ++l) EXPECT_NEAR(product(i, l), i == l, 1e-8);
}

TEST_F(LaplaceIteration, FailedModesFailTheIterationAndTheTrial) {
  settings.maxsweeps = 1;
  std::string shown;
  EXPECT_EQ(step(state, &shown), LaplaceStep::notinverted);
  EXPECT_EQ(shown, "The modes of the random effects have not settled after 1 sweeps of Laplace6\n");
  double loglik = 0;
  console([&] { EXPECT_FALSE(laplace6loglikelihood(study.data, settings, state, loglik)); });
  state.now.taupi[0] = 1.0;  // singular with what stands beside it
  state.now.taupi[1] = state.now.taupi[2] = 2.0;
  state.now.taupi[3] = 4.0;
  settings.maxsweeps = 200;
  console([&] { EXPECT_FALSE(laplace6loglikelihood(study.data, settings, state, loglik)); });
}

// Outcomes without any variation between units: the steps for the variances point out of the parameter space.
TEST(LaplaceStep, IsHalvedToStayInsideAndEightTrialsAreTheLimit) {
  Shape flat = wide;
  flat.spread = 0.0;
  const Study study(flat);
  struct Case {
    double size;
    LaplaceStep wanted;
  };
  for (const Case& one : {Case{0.05, LaplaceStep::done}, Case{1e-5, LaplaceStep::outside}}) {
    LaplaceState state = study.state(study.parameters(one.size));
    LaplaceStep step{};
    console([&] { step = laplace6iterate(study.data, {}, state, false); });
    EXPECT_EQ(step, one.wanted) << one.size;
    if (step != LaplaceStep::done) continue;
    const std::size_t P = state.now.count();
    const std::vector<double> before = elements(state.previous), after = elements(state.now);
    std::vector<double> delta(P);
    for (std::size_t i = 0; i < P; ++i)
      for (std::size_t l = 0; l < P; ++l) delta[i] += state.inverse[i * P + l] * state.score[l];
    const double share = (after[P - 1] - before[P - 1]) / delta[P - 1];
    EXPECT_LT(share, 0.6);
    for (std::size_t i = 0; i < P; ++i) EXPECT_NEAR(after[i] - before[i], share * delta[i], 1e-9);
    EXPECT_NEAR(std::log2(share), std::round(std::log2(share)), 1e-6);
  }
  const auto [u, v] = study.modes();
  LaplaceResult result;
  console([&] { result = runlaplace(study.data, {}, study.parameters(1e-5), u, v, -1.0); });
  EXPECT_EQ(result.end, LaplaceEnd::failed);
  EXPECT_EQ(elements(result.estimates), elements(study.parameters(1e-5)));
}

// A run that ends with a ridge in use: the last call moves nothing and leaves the ridge out of the standard errors.
TEST(LaplaceRun, RidgeAtTheEndCallsForAFinalCall) {
  const Study study({"ridged", 1, {0}, {{0, false}}, 40, 6, 8, 9});
  LaplaceResult result;
  const std::string shown = console([&] { result = fit(study, {}); });
  ASSERT_EQ(result.end, LaplaceEnd::estimated);
  EXPECT_TRUE(result.finalcall);
  EXPECT_NE(shown.find("Laplace iteration " + std::to_string(result.iteration - 1)), std::string::npos);
  EXPECT_EQ(shown.find("Laplace iteration " + std::to_string(result.iteration)), std::string::npos);
  LaplaceState state;
  state.now = result.estimates.copy();
  startmodes(study.data, study.q, study.r, result.u, result.v, state.modes);
  console([&] { ASSERT_EQ(laplace6iterate(study.data, {}, state, true), LaplaceStep::done); });
  for (std::size_t i = 0; i < result.inverse.size(); ++i)
    EXPECT_NEAR(state.inverse[i], result.inverse[i], 1e-5 * std::fabs(result.inverse[0]));
}

// With fewer level-3 units than parameters the information is singular: a ridge is needed, the final call fails.
TEST(LaplaceRun, RaisedRidgeGoesOnAndSingularFinalInformationFails) {
  const Study study({"few", 1, {0}, {{0, false}}, 4, 6, 8, 41});
  LaplaceSettings settings;
  settings.stopmacro = 1e30;  // every test of convergence passes
  LaplaceResult result;
  const std::string shown = console([&] { result = fit(study, settings); });
  EXPECT_EQ(result.end, LaplaceEnd::failed);
  EXPECT_NE(shown.find("Laplace iteration 2"), std::string::npos);  // the first raised the ridge
  EXPECT_EQ(shown.find("Laplace iteration 3"), std::string::npos);  // the second lowered it
  EXPECT_EQ(count(shown, '*'), 1);
  EXPECT_EQ(count(shown, '/'), 1);
}

// Level-2 units of one record with a rare outcome: the sum of their corrections exceeds 1. The score is then that of
// the first-order approximation.
TEST(LaplaceRun, LikelihoodWithoutALogarithmIsAFailedTrial) {
  const Study study({"rare", 1, {0}, {{0, false}}, 3, 10, 1, 51, -4.0}, false);
  const Parameters x = study.parameters(8.0, -4.0);
  LaplaceState state = study.state(x);
  LaplaceSettings settings;
  settings.stopmodes = 1e-9;
  double loglik = 0, rel2 = 0, rel3 = 0;
  const auto defined = [&] { return laplace6loglikelihood(study.data, settings, state, loglik); };
  const std::string shown = console([&] { EXPECT_FALSE(defined()); });
  EXPECT_EQ(count(shown, '\n'), 0);
  ScoreWork work = makescorework(study.data, study.q, study.r);
  TauInverses inverses;
  ASSERT_TRUE(invertaus(x, inverses));
  UnitReliability reliability{&rel2, &rel3};
  std::vector<double> score(x.count());
  EXPECT_FALSE(unitscore(study.data, x, inverses, state.modes, study.units[0], work, score.data(), reliability));
  for (std::size_t p = 0; p < score.size(); ++p) {
    const auto moved = [&](double h) {
      std::vector<double> delta(score.size());
      delta[p] = h;
      Parameters there = x.copy();
      addstep(there, delta.data());
      return denselikelihood(denseunit(study, study.units[0]), there, 0.0);
    };
    EXPECT_NEAR(score[p], (moved(1e-3) - moved(-1e-3)) / 2e-3, 1e-6) << p;
  }
}

TEST(LaplaceRun, LimitAndKeyboardEndTheIterations) {
  const Study study(wide);
  LaplaceSettings settings;
  settings.laplaceit = 0;
  LaplaceResult result;
  EXPECT_EQ(console([&] { result = fit(study, settings, 0.6, -123.0); }), "\n");
  EXPECT_EQ(result.end, LaplaceEnd::noiterations);
  EXPECT_EQ(result.loglik, -123.0);
  EXPECT_EQ(elements(result.estimates), elements(study.parameters()));

  settings.laplaceit = 1;
  std::string shown = console([&] { result = fit(study, settings); });
  EXPECT_EQ(result.end, LaplaceEnd::estimated);
  EXPECT_EQ(result.iteration, 1);
  EXPECT_EQ(shown.find("iteration 2"), std::string::npos);
  EXPECT_NE(shown.find("stopped at their limit"), std::string::npos);
  EXPECT_FALSE(result.converged);
  EXPECT_EQ(result.vgamma.size(), square(study.g));

  // Asked at the end of the mode sweeps and of the iteration; the iteration under way is finished.
  static int asked;
  asked = 0;
  settings.laplaceit = 50;
  settings.stopasked = [] { return ++asked == 4; };
  shown = console([&] { result = fit(study, settings); });
  EXPECT_EQ(result.end, LaplaceEnd::estimated);
  EXPECT_EQ(result.iteration, 2);
  EXPECT_EQ(asked, 6);
  EXPECT_EQ(shown.find("stopped at their limit"), std::string::npos);
}

}  // namespace
