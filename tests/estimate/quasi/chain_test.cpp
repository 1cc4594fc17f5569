// A chain of passes as one fit: what it hands back and tells, again and again in one process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "estimate/likelihood/engines.h"
#include "estimate/linear/study.h"
#include "estimate/quasi/categorydata.h"
#include "estimate/quasi/categoryloop.h"
#include "estimate/quasi/macroloop.h"
#include "kernel/sizes.h"

namespace {

using namespace kdr;

class Chain : public testing::Test {
 protected:
  study::Study made{5, 25, 6, 8, true};
  std::string told;  // a letter for each event
  std::vector<double> numbers;

  Chain() {
    run.model.outcome.family = Family::bernoulli;
    run.model.restrictions.fixsigma2 = 1.0;
    run.model.outname = paddedname("Y");
    run.control.numit = 50;
    run.control.macroit = 4;
    run.control.laplace = true;
    run.control.laplaceit = 3;
    run.control.agqpoints = 3;
    run.control.agqit = 2;
    Observer& observer = made.observer;
    observer.macrobegins = [this](int) { told += 'm'; };
    observer.passstands = [this](const ChainPass& pass) {
      told += pass.results.kind == PassKind::identity            ? 'i'
              : pass.results.kind == PassKind::populationaverage ? 'a'
                                                                 : 'p';
      for (const Array<double>* values : {&pass.results.est.gammahat, &pass.results.est.taupi})
        numbers.insert(numbers.end(), values->begin(), values->end());
    };
    observer.macroends = [this](const MacroEvent& event) { told += "gckls"[static_cast<int>(event.end)]; };
    observer.phasecloses = [this](const ChainPass&) { told += 'C'; };
    observer.enginesover = [this](const ChainPass&) { told += 'E'; };
    observer.enginestands = [this](const EngineStage& stage) {
      told += stage.engine == Engine::laplace6 ? 'L' : 'Q';
      numbers.push_back(stage.fit.loglik);
      const Array<double>& V = stage.fit.covariance;
      numbers.insert(numbers.end(), V.begin(), V.end());
    };
  }
  Failure fit() {
    told.clear();
    numbers.clear();
    ChainFit chain{made.analysis};
    return fitnonlinear(chain);
  }
};

TEST_F(Chain, TheSameBytesAgainBehindAFitThatWasStoppedAndOneThatFailed) {
  ASSERT_FALSE(fit());
  EXPECT_EQ(told, "migmpgmpgmplCLQEma");
  const std::vector<double> first = numbers;
  ASSERT_GT(first.size(), 50U);

  // Given up inside an engine.
  bool inside = false;
  made.observer.engine = [&](Engine, const EngineEvent&) { inside = true; };
  made.observer.poll = [&] { return inside; };
  EXPECT_EQ(fit().row, abandoned);
  EXPECT_EQ(told, "migmpgmpgmplC");
  made.observer.poll = nullptr;

  // The outcome is no share of successes.
  run.model.outvar = 2;
  run.model.use1.row(0)[1] = Use::predictor;
  run.model.use1.row(0)[2] = Use::outcome;
  const Failure failure = fit();
  EXPECT_EQ(failure.row, ownwords);
  EXPECT_NE(failure.consolewords.find("must be 0 or 1"), std::string::npos);
  run.model.outvar = 1;
  run.model.use1.row(0)[1] = Use::outcome;
  run.model.use1.row(0)[2] = Use::predictor;

  ASSERT_FALSE(fit());
  EXPECT_EQ(numbers, first);
}

// A user who stops a pass gets the close of the phase, without iterations of the engines.
TEST_F(Chain, AStoppedPassClosesThePhase) {
  int macro = 0;
  std::vector<int> iterations;
  made.observer.macrobegins = [&](int number) { macro = number; };
  made.observer.interrupted = [&] { return macro == 2; };
  made.observer.engine = [&](Engine, const EngineEvent& event) {
    if (event.kind == EngineEvent::Kind::iteration) iterations.push_back(event.number);
  };
  ASSERT_FALSE(fit());
  EXPECT_EQ(told.substr(0, 3), "igp");
  EXPECT_EQ(told[3], 'k');
  EXPECT_TRUE(iterations.empty());
}

// At the limit the observer is asked; without an answer the phase closes.
TEST_F(Chain, TheLimitAsks) {
  run.control.numitcontinue = AtLimit::ask;
  run.control.laplace = false;
  run.control.agqpoints = 0;
  run.control.macroit = 2;
  run.control.stopmacro = 1e-2;
  ASSERT_FALSE(fit());
  EXPECT_EQ(told, "migmplCEma");
  int asked = 0, limit = 0;
  made.observer.goon = [&] { return ++asked > 0; };
  made.observer.macrolimitraised = [&](int to) { limit = to; };
  ASSERT_FALSE(fit());
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(limit, 10000);
  EXPECT_EQ(told.substr(told.size() - 6), "pcCEma");
}

TEST_F(Chain, CategoriesAreCounted) {
  run.model.outcome.family = Family::ordinal;
  for (const auto& [categories, words] : {std::pair(1, "more than"), {3, "less than"}}) {
    run.model.outcome.categories = categories;
    CategoryTable table;
    EXPECT_NE(readcategories(made.analysis, table).consolewords.find(words), std::string::npos);
  }
  run.model.outcome.categories = 2;
  CategoryTable table;
  ASSERT_FALSE(readcategories(made.analysis, table));
  EXPECT_EQ(table.value, (std::vector<double>{0.0, 1.0}));
  double sum = 0.0;
  for (const double count : table.count) sum += count;
  EXPECT_EQ(sum, run.mdm.numl1rec);
}

// A predictor of 32 counts as 2 up to the seventh macro iteration: then z'Wz of a record is p q (2 + 1/p)^2 or p q (2
// - 1/q)^2, q = 1 - p.
TEST_F(Chain, CategoryPredictorsBeyondThirtyStartAgain) {
  run.model.outcome.family = Family::ordinal;
  run.model.outcome.categories = 2;
  CategoryTable table;
  ASSERT_FALSE(readcategories(made.analysis, table));
  for (const int macro : {7, 8}) {
    ChainFit chain{made.analysis};
    PassPlan plan;
    plan.kind = PassKind::categories;
    plan.fixsigma2 = 1.0;
    ASSERT_FALSE(preparecategoricaldata(table, chain.state, chain.pass, plan));
    chain.pass.est.gammahat[0] = 32.0;
    chain.state.macro = macro;
    plan.start = &chain.state.previous;
    Pass next;
    ASSERT_FALSE(updatecategoricaldata(chain.pass, chain.state, next, plan));
    const double eta = macro == 7 ? 2.0 : 32.0, p = 1.0 / (1.0 + std::exp(-eta)), q = 1.0 / (1.0 + std::exp(eta));
    double wanted = 0.0;
    for (const int category : {0, 1}) {
      const double z = category == 0 ? eta + 1.0 / p : eta - 1.0 / q;
      wanted += table.count[at(category)] * p * q * z * z;
    }
    EXPECT_NEAR(next.totalYY / wanted, 1.0, 1e-9) << macro;
  }
}

}  // namespace
