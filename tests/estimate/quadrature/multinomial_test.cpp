// Multinomial outcomes on the quadrature whose nodes go with the data: derivatives against differences, maxima against
// dense integrals and a dense Laplace approximation that share nothing with the program (multinomialstudies.py).
#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "estimate/quadrature/densecases.h"
#include "estimate/quadrature/movingstudy.h"

namespace {

using namespace kdr;
using namespace madestudy;
using namespace densecases;
using namespace movingstudy;

using Columns = std::vector<std::pair<int, int>>;  // predictor, and 0 for its intercept or 1 for its slope of x

struct MultinomialCase {
  const char* name;
  int categories;
  Columns second, third;
  int points;
};
const MultinomialCase multinomials[] = {{"multinomial22", 3, {{0, 0}, {1, 0}}, {{0, 0}, {1, 0}}, 11},
                                        {"multinomial31", 3, {{0, 0}, {0, 1}, {1, 0}}, {{1, 0}}, 11},
                                        {"multinomial33", 4, {{0, 0}, {1, 0}, {2, 0}}, {{0, 0}, {1, 0}, {2, 0}}, 5}};

// Each predictor has an intercept on z and w and a slope of x, whose columns of B are 3c, 3c + 1 and 3c + 2 before
// those random at level 3 go first.
Study multinomialstudy(int categories, const Columns& second, const Columns& third,
                       const std::vector<Record>& records) {
  Study study = makestudy({Family::multinomial, categories}, 1, 1, records);
  const int M = categories - 1;
  study.q = static_cast<int>(second.size());
  study.r = static_cast<int>(third.size());
  study.npi = 2 * M;
  study.nbeta = 3 * M;
  for (int c = 0; c < M; ++c) study.response.insert(study.response.end(), {c, c});
  Design& design = study.design;
  std::vector<int> order;  // columns of B as they were, in their places
  for (const auto& [c, slope] : third) order.push_back(3 * c + 2 * slope);
  for (int m = 0; m < 3 * M; ++m)
    if (std::find(order.begin(), order.end(), m) == order.end()) order.push_back(m);
  const auto placeof = [&](int m) {
    return static_cast<int>(std::find(order.begin(), order.end(), m) - order.begin());
  };
  design.owner2.reset(at(3 * M));
  for (int m = 0; m < 3 * M; ++m) design.owner2[at(placeof(m))] = m / 3 * 2 + (m % 3 == 2 ? 1 : 0);
  design.random1.reset(second.size());
  for (std::size_t a = 0; a < second.size(); ++a) design.random1[a] = 2 * second[a].first + second[a].second;
  design.owner3.reset(at(4 * M));
  design.reduced.reset(at(4 * M));
  for (int f = 0; f < 4 * M; ++f) {  // 1, z, w and x
    design.owner3[at(f)] = placeof(f / 4 * 3 + std::max(f % 4 - 1, 0));
    design.reduced[at(f)] = f;
  }
  for (Level3Records& unit : study.units) {
    const Array<double> w2 = unit.w2.copy(), x = unit.x.copy(), w3 = unit.w3.copy();
    unit.w2.reset(at(unit.units) * at(3 * M));
    unit.w2.fill(1.0);
    for (int j = 0; j < unit.units; ++j)
      for (int c = 0; c < M; ++c) unit.w2[at(j * 3 * M + placeof(3 * c + 1))] = w2[at(3 * j + 1)];
    unit.x.reset(unit.y.size() * at(2 * M));
    for (std::size_t i = 0; i < unit.y.size(); ++i)
      for (std::size_t c = 0; c < at(M); ++c) std::copy_n(x.data() + 2 * i, 2, unit.x.data() + 2 * (i * at(M) + c));
    unit.w3.reset(at(4 * M));
    for (std::size_t c = 0; c < at(M); ++c) std::copy_n(w3.data(), 4, unit.w3.data() + 4 * c);
  }
  return study;
}

Study readmultinomial(const MultinomialCase& c) {
  return multinomialstudy(c.categories, c.second, c.third, readrecords(folder + c.name + ".dat"));
}

Parameters startof(const Study& study, const MultinomialCase& c) {
  return makeparameters(study.q, study.r, reference(c.name, "start"));
}

TEST(Multinomial, ScoresAndInformationAreDerivatives) {
  std::vector<MultinomialCase> all(std::begin(multinomials), std::end(multinomials));
  all.push_back({"multinomial22", 3, {{0, 0}}, {{1, 1}}, 4});  // weights of every record instead of their sums
  for (const MultinomialCase& c : all) {
    Study study = readmultinomial(c);
    study.units.resize(4);
    Parameters place = startof(study, c);
    if (study.q == 1) place = makeparameters(1, 1, {0.8, 0.5, 0.3, 0.4, -0.3, 0.5, -0.1, 0.0, -0.7, 0.1});
    RecordSource source = study.source();
    SphericalLikelihood likelihood = likelihoodof(study, source, place, study.q + study.r > 4 ? 3 : 4);
    const Array<double> point = besides(pointof(likelihood.frame, place));
    expectlaplacescore(likelihood, point, 1e-6, c.name);
    expectderivatives(likelihood, point, c.name);
  }
}

// From a start, and from none.
TEST(Multinomial, MaximaOfDenseIntegralsAndOfOnePoint) {
  for (const MultinomialCase& c : multinomials)
    for (const int points : {c.points, 1}) {
      const std::string ending = points == 1 ? "1" : "";
      Study study = readmultinomial(c);
      Parameters start = startof(study, c);
      if (c.name == std::string("multinomial22")) start = {study.q, study.r, start.g, {}, {}, {}};
      MovingSettings settings;
      settings.check = c.categories == 3;
      const MovingResult result = fit(study, start, points, std::move(settings));
      ASSERT_EQ(result.end, MovingEnd::converged) << c.name << points;
      EXPECT_TRUE(result.warnings.empty()) << c.name << points << result.warnings[0];
      EXPECT_LE(result.iterations, 12) << c.name << points;
      EXPECT_NEAR(result.loglikelihood, reference(c.name, "maximum" + ending)[0], points == 1 ? 1e-5 : 0.003) << c.name;
      const std::vector<double> estimates = reference(c.name, "estimate" + ending),
                                errors = reference(c.name, "se" + ending), found = elements(result.parameters);
      ASSERT_EQ(found.size(), errors.size());
      for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_NEAR(found[i], estimates[i], (points == 1 ? 0.002 : 0.01) * errors[i]) << c.name << points << " " << i;
        EXPECT_NEAR(std::sqrt(result.covariance[i * found.size() + i]), errors[i], 0.01 * errors[i])
            << c.name << points << " " << i;
      }
    }
}

// The first of two categories against the last is a success.
TEST(Multinomial, TwoCategoriesAreABernoulliOutcome) {
  const std::vector<double> theta = reference("bernoulli21", "start");
  std::vector<Record> records = readrecords(folder + "bernoulli21.dat");
  for (const int points : {1, 7}) {
    Study plain = makestudy(bernoulli, 2, 1, records);
    std::vector<Record> turned = records;
    for (Record& record : turned) record.y = 1.0 - record.y;
    Study study = multinomialstudy(2, {{0, 0}, {0, 1}}, {{0, 0}}, turned);
    const MovingResult wanted = fit(plain, makeparameters(2, 1, theta), points),
                       result = fit(study, makeparameters(2, 1, theta), points);
    ASSERT_TRUE(wanted.end == MovingEnd::converged && result.end == MovingEnd::converged);
    EXPECT_NEAR(result.loglikelihood, wanted.loglikelihood, 1e-8);
    const std::vector<double> found = elements(result.parameters), right = elements(wanted.parameters);
    for (std::size_t i = 0, P = found.size(); i < P; ++i) {
      EXPECT_NEAR(found[i], right[i], 1e-6) << points << " " << i;
      EXPECT_NEAR(result.covariance[i * P + i] / wanted.covariance[i * P + i], 1.0, 1e-5) << points << " " << i;
    }
  }
}

// A record that stands for several alike.
TEST(Multinomial, CountedRecordsAreCopies) {
  const MultinomialCase& c = multinomials[0];
  const std::vector<Record> records = readrecords(folder + c.name + ".dat");
  std::vector<Record> copies;
  Study counted = readmultinomial(c);
  std::size_t place = 0;
  for (Level3Records& unit : counted.units) {
    unit.n.reset(unit.y.size());
    for (double& n : unit.n) {
      n = static_cast<double>(1 + place % 3);
      copies.insert(copies.end(), 1 + place % 3, records[place]);
      ++place;
    }
  }
  Study copied = multinomialstudy(c.categories, c.second, c.third, copies);
  for (const int points : {1, 5}) {
    MovingSettings settings;
    settings.check = false;
    const Parameters start = startof(copied, c);
    const MovingResult result = fit(counted, start, points, settings), wanted = fit(copied, start, points, settings);
    ASSERT_TRUE(wanted.end == MovingEnd::converged && result.end == MovingEnd::converged);
    EXPECT_NEAR(result.loglikelihood, wanted.loglikelihood, 1e-4);
    for (std::size_t i = 0; i < wanted.parameters.count(); ++i)
      EXPECT_NEAR(elements(result.parameters)[i], elements(wanted.parameters)[i], 1e-4) << points << " " << i;
  }
}

}  // namespace
