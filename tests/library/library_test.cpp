// The library by its C header: the bytes of two processes from two fits in one, fits that stop and fail, and errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kdr3/kdr3.hpp"

namespace {

// 12 schools of 6 pupils of 5 records; a count and a 0/1 outcome beside the normal one.
struct Table {
  std::vector<double> y, x, hit, w, z;
  std::vector<std::int64_t> pupil, school;
  explicit Table(unsigned seed) {
    unsigned state = seed;
    const auto noise = [&] {
      return static_cast<double>((state = state * 1664525U + 1013904223U) >> 8) / 8388608.0 - 1;
    };
    for (int k = 0; k < 12; ++k) {
      const double v = 2 * noise(), zk = noise();
      for (int j = 0; j < 6; ++j) {
        const double u = 2 * noise(), slope = noise(), wj = noise();
        for (int i = 0; i < 5; ++i) {
          school.push_back(k);
          pupil.push_back(j);
          x.push_back(noise());
          w.push_back(wj);
          z.push_back(zk);
          y.push_back(3 + v + u + (1 + slope) * x.back() + wj + zk + noise());
          hit.push_back(noise() < std::tanh(0.3 * (v + u) + 0.5 * x.back()) ? 1.0 : 0.0);
        }
      }
    }
  }
  [[nodiscard]] kdr3::Data data() const {
    return kdr3::Data::make(y.size(),
                            {kdr3::column("y", 1, y), kdr3::column("x", 1, x), kdr3::column("hit", 1, hit),
                             kdr3::column("w", 2, w), kdr3::column("z", 3, z)},
                            kdr3::column("pupil", 2, pupil), kdr3::column("school", 3, school));
  }
};

kdr3::Model linear(const kdr3::Data& data) {
  kdr3::Model model(data, "y");
  model.term(nullptr, {KDR3_RAW, true, true});
  model.term("x", {KDR3_GROUPMEAN, true, false});
  return model;
}
kdr3::Model logistic(const kdr3::Data& data) {
  kdr3::Model model(data, "hit", KDR3_BERNOULLI);
  model.term(nullptr, {KDR3_RAW, true, true});
  model.term("x");
  model.set("AGQ", 5).set("AGQIT", 30).set("THREADS", 2);
  return model;
}

// Everything that a result hands out.
std::vector<double> all(const kdr3::Result& result) {
  EXPECT_TRUE(result) << result.error();
  std::vector<double> values = result.fixed();
  for (const auto& more : {result.covariance(), result.taupi(), result.taubeta()})
    values.insert(values.end(), more.begin(), more.end());
  const kdr3_summary summary = result.summary();
  values.insert(values.end(), {summary.sigma2, summary.loglikelihood, double(summary.iterations)});
  return values;
}
void same(const std::vector<double>& a, const std::vector<double>& b, const char* what) {
  ASSERT_EQ(a.size(), b.size()) << what;
  EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(double)), 0) << what;
}

TEST(Library, FitsInterleavedAndInThreadsAreThoseOfOneAlone) {
  const Table one(1), two(2);
  const kdr3::Data data1 = one.data(), data2 = two.data();
  const kdr3::Model model1 = linear(data1), model2 = logistic(data2);
  const std::vector<double> alone1 = all(model1.fit()), alone2 = all(model2.fit());
  EXPECT_GT(alone1.size(), 10U);

  // Step by step: each fit waits at its progress until the other has moved.
  std::mutex mutex;
  std::condition_variable moved;
  int turn = 0;
  bool over[2] = {};
  const auto stepping = [&](int self) {
    return [&, self](const std::string&) {
      std::unique_lock lock(mutex);
      turn = 1 - self;
      moved.notify_all();
      moved.wait(lock, [&] { return turn == self || over[1 - self]; });
    };
  };
  const auto end = [&](int self) {
    const std::lock_guard lock(mutex);
    over[self] = true;
    moved.notify_all();
  };
  std::vector<double> stepped1, stepped2;
  std::thread other([&] {
    stepped2 = all(model2.fit({{}, stepping(1)}));
    end(1);
  });
  stepped1 = all(model1.fit({{}, stepping(0)}));
  end(0);
  other.join();
  same(stepped1, alone1, "step by step, linear");
  same(stepped2, alone2, "step by step, logistic");

  std::vector<std::thread> threads;
  std::vector<std::vector<double>> found(6);
  for (std::size_t i = 0; i < found.size(); ++i)
    threads.emplace_back([&, i] { found[i] = all(i % 2 == 0 ? model1.fit() : model2.fit()); });
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < found.size(); ++i) same(found[i], i % 2 == 0 ? alone1 : alone2, "threads");
}

TEST(Library, StoppedAndFailedFitsLeaveTheNextOneAlone) {
  const Table table(3);
  const kdr3::Data data = table.data();
  const kdr3::Model good = logistic(data);
  const std::vector<double> before = all(good.fit());

  int asked = 0;
  const kdr3::Result stopped = good.fit({[&] { return ++asked > 3; }, {}});
  ASSERT_TRUE(stopped);
  EXPECT_EQ(stopped.summary().converged, 0);
  EXPECT_FALSE(stopped.warnings().empty());

  // Two copies of one predictor.
  kdr3::Model failing(data, "y");
  failing.term(nullptr, {KDR3_RAW, true, true});
  failing.term("x");
  int term = 0, coefficient = 0;
  kdr3_model_level1(failing.get(), "hit", KDR3_RAW, 0, &coefficient);
  const kdr3::Result empty = failing.fit();
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.error(), "The level-1 coefficient hit has neither a level-2 term nor a random effect.");
  kdr3_model_level2(failing.get(), coefficient, nullptr, KDR3_RAW, 0, &term);
  kdr3_model_level3(failing.get(), term, nullptr, KDR3_RAW);
  EXPECT_TRUE(failing.fit());
  const std::vector<double> constant(table.y.size(), 7.0);
  const kdr3::Data twice =
      kdr3::Data::make(table.y.size(), {kdr3::column("y", 1, table.y), kdr3::column("c", 1, constant)},
                       kdr3::column("pupil", 2, table.pupil), kdr3::column("school", 3, table.school));
  kdr3::Model singular(twice, "y");
  singular.term(nullptr, {KDR3_RAW, true, true});
  singular.term("c");
  const kdr3::Result failed = singular.fit();
  EXPECT_FALSE(failed);
  EXPECT_NE(failed.error().find("near singularity"), std::string::npos) << failed.error();

  same(all(good.fit()), before, "behind a stopped and a failed fit");
}

TEST(Library, RowsInAnyOrderAndTextIds) {
  const Table table(4);
  const std::vector<double> sorted = all(linear(table.data()).fit());
  // The same rows from the last to the first: the units turn round, the estimates stay but for rounding.
  Table turned = table;
  for (auto* column : {&turned.y, &turned.x, &turned.hit, &turned.w, &turned.z})
    std::reverse(column->begin(), column->end());
  std::vector<std::string> names;
  std::vector<const char*> texts;
  for (std::size_t i = 0; i < table.y.size(); ++i)
    names.push_back("Gymnasium am See, Klasse " + std::to_string(table.school[table.y.size() - 1 - i]));
  for (const std::string& name : names) texts.push_back(name.c_str());
  std::reverse(turned.pupil.begin(), turned.pupil.end());
  const kdr3_column school{"school", 3, KDR3_TEXT, texts.data(), 0, nullptr};
  const kdr3::Data data =
      kdr3::Data::make(turned.y.size(), {kdr3::column("y", 1, turned.y), kdr3::column("x", 1, turned.x)},
                       kdr3::column("pupil", 2, turned.pupil), school);
  const std::vector<double> found = all(linear(data).fit());
  ASSERT_EQ(found.size(), sorted.size());
  for (std::size_t i = 0; i + 1 < found.size(); ++i)
    EXPECT_NEAR(found[i], sorted[i], 1e-7 * (1 + std::fabs(sorted[i])));
}

TEST(Library, DataOfTwoLevels) {
  const Table table(6);
  const std::vector<kdr3_column> columns = {kdr3::column("y", 1, table.y), kdr3::column("x", 1, table.x),
                                            kdr3::column("hit", 1, table.hit), kdr3::column("w", 1, table.w)};
  const kdr3_column school = kdr3::column("school", 2, table.school), pupil = kdr3::column("pupil", 2, table.pupil);
  const kdr3::Data two = kdr3::Data::make(table.y.size(), columns, school);
  ASSERT_TRUE(two) << two.error();
  std::size_t sizes[3];
  EXPECT_EQ(kdr3_data_sizes(two.get(), sizes), KDR3_OK);
  EXPECT_EQ(sizes[2], 0U);
  // The same model on three levels: schools as level 3, and nothing random over pupils.
  kdr3::Model low(two, "y");
  low.term(nullptr, {KDR3_RAW, true, false});
  low.term("x", {KDR3_GRANDMEAN, true, false});
  const kdr3::Data three = kdr3::Data::make(table.y.size(), columns, pupil, kdr3::column("school", 3, table.school));
  kdr3::Model high(three, "y");
  high.term(nullptr, {KDR3_RAW, false, true});
  high.term("x", {KDR3_GRANDMEAN, false, true});
  const kdr3::Result lower = low.fit(), higher = high.fit();
  ASSERT_TRUE(lower && higher) << lower.error() << higher.error();
  EXPECT_EQ(lower.summary().units3, 0U);
  EXPECT_EQ(lower.summary().random3, 0U);
  EXPECT_NEAR(lower.summary().loglikelihood, higher.summary().loglikelihood, 1e-5);
  for (std::size_t i = 0; i < lower.fixed().size(); ++i) EXPECT_NEAR(lower.fixed()[i], higher.fixed()[i], 1e-4);
  for (std::size_t i = 0; i < lower.taupi().size(); ++i) EXPECT_NEAR(lower.taupi()[i], higher.taubeta()[i], 2e-3);

  std::vector<kdr3_column> more = columns;
  more.push_back(kdr3::column("z", 3, table.z));
  EXPECT_EQ(kdr3::Data::make(table.y.size(), more, school).error(), "A column of level 3 needs the IDs of level 3.");
  more.back() = kdr3::column("z", 2, table.z);
  const kdr3::Data with = kdr3::Data::make(table.y.size(), more, school);
  kdr3::Model wrong(with, "y");
  int coefficient = 0, term = 0;
  EXPECT_EQ(kdr3_model_level1(wrong.get(), nullptr, KDR3_RAW, 1, &coefficient), KDR3_OK);
  EXPECT_EQ(kdr3_model_level2(wrong.get(), coefficient, "z", KDR3_GROUPMEAN, 0, &term), KDR3_ERROR);
  EXPECT_STREQ(kdr3_message(), "A level-2 variable has no groups to be centered in: z.");
  EXPECT_EQ(kdr3_model_level2(wrong.get(), coefficient, nullptr, KDR3_RAW, 1, &term), KDR3_OK);
  EXPECT_EQ(wrong.fit().error(),
            "The data have two levels: the model has neither terms nor random effects of level 3.");
}

TEST(Library, RestrictionsAndHypotheses) {
  const Table table(6);
  const kdr3::Data data = table.data();
  kdr3::Model model = linear(data);
  model.term("hit");
  model.hypothesis(1, {0, 1, 0}).hypothesis(2, {0, 2, 0, 0, -3, 0});
  const kdr3::Result free = model.fit();
  ASSERT_TRUE(free) << free.error();
  const std::vector<double> gamma = free.fixed(), V = free.covariance();
  // One contrast is the square of t; one that another is a multiple of has no test.
  EXPECT_NEAR(free.test(0).chisquare, gamma[1] * gamma[1] / V[4], 1e-9);
  EXPECT_NEAR(free.test(0).p, std::erfc(std::fabs(gamma[1]) / std::sqrt(2 * V[4])), 1e-9);
  EXPECT_EQ(free.test(1).df, 2);
  EXPECT_TRUE(std::isnan(free.test(1).chisquare));
  EXPECT_FALSE(std::isnan(free.test(0, true).chisquare));

  // Two equal effects are one, that of the sum of the two predictors.
  const kdr3::Result equal = model.constrain({0, 1, 1}).fit();
  ASSERT_TRUE(equal) << equal.error();
  EXPECT_EQ(equal.fixed().size(), 2U);
  EXPECT_EQ(equal.name(1), free.name(1));
  EXPECT_LT(equal.summary().loglikelihood, free.summary().loglikelihood);

  // A covariance that is held stays where it is held, and the posterior of a unit is one of a covariance matrix.
  const kdr3::Result held = linear(data).restrict(2, 2, {NAN, 0.25, 0.25, NAN}).fit();
  ASSERT_TRUE(held) << held.error();
  EXPECT_EQ(held.taupi()[1], 0.25);
  const kdr3::Result::Effects effects = held.effects();
  ASSERT_EQ(effects.covariance2.size(), 4U * 72);
  for (std::size_t j = 0; j < 72; ++j) {
    const double* C = effects.covariance2.data() + 4 * j;
    EXPECT_EQ(C[1], C[2]);
    EXPECT_GT(C[0] * C[3], C[1] * C[2]);
  }
  EXPECT_NE(held.document().find("\"tau_pi\""), std::string::npos);
  EXPECT_EQ(held.document(KDR3_CSV).find("phase,part,"), 0U);

  const auto told = [&](auto change) {
    kdr3::Model wrong = linear(data);
    change(wrong);
    return wrong.fit().error();
  };
  EXPECT_EQ(told([](auto& m) {
              m.constrain({0, 2});
            }),
            "Groups of equal fixed effects are numbered from 1, in the order of their first members.");
  EXPECT_EQ(told([](auto& m) { m.constrain({0, 1, 1}); }), "The groups are of 3 fixed effects, and the model has 2.");
  EXPECT_EQ(told([](auto& m) { m.hypothesis(1, {1}); }),
            "Hypothesis 1 is not about 2 fixed effects, which the model has.");
  EXPECT_EQ(told([](auto& m) {
              m.restrict(3, 2, {1, 0, 0, 1});
            }),
            "The restriction of tau(beta) is not of its order, which is 1.");
  EXPECT_EQ(told([](auto& m) {
              m.restrict(2, 2, {1, 0, 1, 1});
            }),
            "The restriction of a covariance matrix is symmetric.");
  // What the engines cannot fit, as the program refuses it; sigma^2 is theirs.
  kdr3::Model engine = logistic(data);
  EXPECT_EQ(engine.restrict(3, 1, {1}).fit().error(),
            "A run with restricted variance components cannot go on to adaptive quadrature.");
  EXPECT_EQ(logistic(data).set("FIXSIGMA2", 2).fit().error(), "With adaptive quadrature sigma^2 is held at 1.");
}

TEST(Library, ErrorsAreSentences) {
  Table table(5);
  const auto making = [&](const std::function<void(Table&)>& change) {
    Table copy = table;
    change(copy);
    return copy.data().error();
  };
  EXPECT_EQ(making([](Table& t) { t.w[2] += 1; }),
            "The level-2 column w has two values in one level-2 unit: row 1 and row 3.");
  EXPECT_EQ(making([](Table& t) { t.x[4] = std::numeric_limits<double>::infinity(); }),
            "The column x is infinite in row 5.");
  EXPECT_EQ(making([](Table& t) { t.z[0] = NAN; }), "The level-3 column z has no finite value in row 1.");
  const kdr3::Data data = table.data();
  EXPECT_EQ(kdr3::Model(data, "score").error(), "The data have no level-1 column score.");
  EXPECT_EQ(kdr3::Model(data, "y", KDR3_BINOMIAL).error(), "A binomial outcome needs a column of trials.");
  EXPECT_EQ(kdr3::Model(data, "y").set("NUMIT", 1.5).error(), "NUMIT takes a whole number from 1 to 1e+09.");
  EXPECT_EQ(kdr3::Model(data, "y").set("NUMBIT", 1).error(), "There is no setting NUMBIT.");
  EXPECT_EQ(kdr3::Model(data, "y").set("AGQ", 2).error(), "The number of quadrature points is 1, or 3 to 198.");
  EXPECT_FALSE(kdr3::Data::open("/nowhere.mdm"));
  EXPECT_STREQ(kdr3_message(), "Unable to open /nowhere.mdm.");
  kdr3_data_free(nullptr);
  kdr3_model_free(nullptr);
  kdr3_result_free(nullptr);
}

}  // namespace
