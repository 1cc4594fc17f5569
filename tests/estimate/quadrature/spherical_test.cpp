// The quadrature whose nodes go with the data: score and information against differences, estimates against dense
// integrals that share nothing with the program.
#include "estimate/quadrature/spherical.h"

#include <gtest/gtest.h>

#include <cmath>

#include "estimate/quadrature/densecases.h"
#include "estimate/quadrature/movingstudy.h"

namespace {

using namespace kdr;
using namespace madestudy;
using namespace densecases;
using namespace movingstudy;

TEST(Spherical, ScoreAndInformationAreDerivatives) {
  std::vector<Case> all(std::begin(cases), std::end(cases));
  all.push_back({"onerecord", bernoulli, 2, 1, 5});  // fewer records than columns
  const std::size_t plain = all.size();
  for (std::size_t i = 0; i < plain; ++i) all.push_back(all[i]);  // with design weights
  for (std::size_t number = 0; number < all.size(); ++number) {
    const Case& c = all[number];
    const bool one = c.name == std::string("onerecord");
    const Parameters place = makeparameters(c.q, c.r, reference(one ? "bernoulli21" : c.name, "start"));
    Study study = one ? makestudy(bernoulli, 2, 1, drawrecords(9, 6, 4, 1, place)) : readcase(c);
    study.units.resize(6);
    if (number >= plain) weigh(study, unevenweight);
    RecordSource source = study.source();
    SphericalLikelihood likelihood = likelihoodof(study, source, place, 4);
    expectderivatives(likelihood, besides(pointof(likelihood.frame, place)), c.name);
  }
}

TEST(Spherical, LaplaceGradientIsADerivative) {
  for (const Case& c : cases)
    for (const bool weighted : {false, true}) {
      Study study = readcase(c);
      study.units.resize(6);
      if (weighted) weigh(study, unevenweight);
      const Parameters place = makeparameters(c.q, c.r, reference(c.name, "start"));
      RecordSource source = study.source();
      SphericalLikelihood likelihood = likelihoodof(study, source, place, 3);
      expectlaplacescore(likelihood, pointof(likelihood.frame, place), 1e-6, c.name);
    }
}

TEST(MovingQuadrature, MaximaOfDenseIntegrals) {
  for (const Case& c : cases) {
    Study study = readcase(c);
    const MovingResult result =
        fit(study, makeparameters(c.q, c.r, reference(c.name, "start")), c.q + c.r > 3 ? 7 : 11);
    ASSERT_EQ(result.end, MovingEnd::converged) << c.name;
    EXPECT_TRUE(result.check.agrees && result.warnings.empty()) << c.name;
    EXPECT_LE(result.iterations, 10) << c.name;
    EXPECT_LT(result.distance, 0.001) << c.name;
    const std::vector<double> estimates = reference(c.name, "estimate"), errors = reference(c.name, "se");
    const std::vector<double> found = elements(result.parameters);
    EXPECT_NEAR(result.loglikelihood, reference(c.name, "maximum")[0], 0.002) << c.name;
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_NEAR(found[i], estimates[i], 0.01 * errors[i]) << c.name << " " << i;
      EXPECT_NEAR(std::sqrt(result.covariance[i * found.size() + i]), errors[i], 0.01 * errors[i])
          << c.name << " " << i;
    }
  }
}

// Without a start, from a regression; and from where nothing can be evaluated, or where the likelihood is flat.
TEST(MovingQuadrature, StartsOfItsOwn) {
  for (const Case& c : {cases[0], cases[1], cases[3]}) {
    Study study = readcase(c);
    Parameters none;
    none.q = c.q;
    none.r = c.r;
    none.g = 4;
    const double height = reference(c.name, "maximum")[0];
    for (const int points : {0, 7}) {
      const MovingResult result = fit(study, none, points);
      EXPECT_TRUE(result.end == MovingEnd::converged && result.warnings.empty()) << c.name;
      EXPECT_NEAR(result.loglikelihood, height, 0.005) << c.name;
      EXPECT_TRUE(result.notes.empty());
    }
    if (c.q + c.r > 2) continue;
    std::vector<double> start = reference(c.name, "start");
    for (const double variance : {1e200, 1e12}) {
      start[0] = variance;
      const MovingResult result = fit(study, makeparameters(c.q, c.r, start), 7);
      EXPECT_EQ(result.end, MovingEnd::converged) << c.name << " " << variance;
      EXPECT_NEAR(result.loglikelihood, height, 0.005) << c.name << " " << variance;
    }
  }
  // Fixed effects that the records don't tell apart.
  std::vector<Record> records = readrecords(folder + "bernoulli11.dat");
  for (Record& record : records) record.w = record.z;
  Study study = makestudy(bernoulli, 1, 1, records);
  const MovingResult result = fit(study, {1, 1, 4, {}, {}, {}}, 7);
  EXPECT_FALSE(result.usable);
  ASSERT_EQ(result.warnings.size(), 1u);
  EXPECT_NE(result.warnings[0].find("do not tell the fixed effects apart"), std::string::npos);
}

// A user who stops an ascent has its last iteration.
TEST(MovingQuadrature, StoppedByItsObserver) {
  Study study = readcase(cases[1]);
  for (const int points : {0, 1, 7}) {
    RecordSource source = study.source();
    MovingSettings settings;
    settings.points = points;
    int last = 0;
    QuadratureObserver watch;
    watch.iteration = [&](int number, double) { last = number; };
    watch.stop = [&] { return last == 2; };
    const MovingResult result = movingquadrature(settings, study.npi, study.nbeta, study.design, source,
                                                 makeparameters(2, 1, reference("bernoulli21", "start")), watch);
    EXPECT_EQ(result.end, MovingEnd::stopped) << points;
    EXPECT_EQ(result.iterations, 2) << points;
    EXPECT_FALSE(result.check.made);
    ASSERT_EQ(result.warnings.size(), 1u) << points;
    EXPECT_EQ(result.warnings[0], "WARNING: the iterations of quadrature ended before they had converged.");
  }
}

// The scores of so few level-3 units have no inverse of their outer products: errors are those of the information.
TEST(MovingQuadrature, OuterProductsOfFewUnits) {
  Study study = readcase(cases[0]);
  study.units.resize(5);
  study.units2 = static_cast<int>(study.units.back().firstunit) + study.units.back().units;
  const Parameters start = makeparameters(1, 1, reference(cases[0].name, "start"));
  MovingSettings outer;
  outer.outerproducts = true;
  const MovingResult wanted = fit(study, start, 11), result = fit(study, start, 11, outer);
  ASSERT_TRUE(wanted.usable && result.usable);
  EXPECT_EQ(result.warnings.size(), 1u);
  EXPECT_EQ(result.loglikelihood, wanted.loglikelihood);
  EXPECT_TRUE(std::equal(result.covariance.begin(), result.covariance.end(), wanted.covariance.begin()));
}

// The records of a study with each unit of each level as often as of(level, unit of level 3, place in it) says.
template <class Of>
std::vector<Record> copiesof(const Study& study, const std::vector<Record>& records, Of of) {
  std::vector<Record> copies;
  const auto times = [&of](int level, int k, std::size_t place) {
    return static_cast<std::size_t>(of(level, at(k), place));
  };
  int k3 = 0;
  std::size_t first = 0;
  for (const Level3Records& unit : study.units) {
    for (std::size_t copy3 = 0; copy3 < times(3, unit.k, 0); ++copy3, ++k3) {
      int j2 = 0;
      for (std::size_t j = 0; j < at(unit.units); ++j)
        for (std::size_t copy2 = 0; copy2 < times(2, unit.k, j); ++copy2, ++j2)
          for (std::size_t i = unit.start[j]; i < unit.start[j + 1]; ++i) {
            Record record = records[first + i];
            record.k = k3;
            record.j = j2;
            copies.insert(copies.end(), times(1, unit.k, i), record);
          }
    }
    first += unit.y.size();
  }
  return copies;
}

// Whole weights of one level are copies of its units, whose clusters are the same where they stay in theirs.
void expectcopies(const Case& c, int level, int points) {
  const auto whole = [level](int of, std::size_t k, std::size_t place) {
    return of == level ? static_cast<double>(1 + (k + 2 * place) % 3) : 1.0;
  };
  const std::string words = c.name + std::string(" level ") + std::to_string(level) + ", " + std::to_string(points);
  const Parameters start = makeparameters(c.q, c.r, reference(c.name, "start"));
  Study study = readcase(c);
  study.units.resize(12);
  study.units2 = static_cast<int>(study.units.back().firstunit) + study.units.back().units;
  Study copied = makestudy(c.outcome, c.q, c.r, copiesof(study, readrecords(folder + c.name + ".dat"), whole));
  weigh(study, whole);
  MovingSettings settings;
  settings.check = false;
  settings.ascent.decrement = 1e-12;
  const MovingResult weighted = fit(study, start, points, settings), wanted = fit(copied, start, points, settings);
  ASSERT_TRUE(weighted.usable && wanted.usable) << words;
  EXPECT_NEAR(weighted.loglikelihood, wanted.loglikelihood, 1e-7 * std::fabs(wanted.loglikelihood)) << words;
  const std::vector<double> found = elements(weighted.parameters), right = elements(wanted.parameters);
  const std::size_t P = found.size();
  for (std::size_t i = 0; i < P; ++i) {
    const double robust = wanted.robust[i * (P + 1)];
    EXPECT_NEAR(found[i], right[i], 1e-4 * std::sqrt(wanted.covariance[i * (P + 1)])) << words << " " << i;
    const double error = level < 3 ? weighted.covariance[i * (P + 1)] : robust;
    EXPECT_NEAR(error, robust, 5e-4 * robust) << words << " " << i;
  }
  if (level < 3) return;
  for (Level3Records& unit : study.units) unit.weight3 *= 1e6;  // changes no estimate
  const MovingResult scaled = fit(study, start, points, settings);
  for (std::size_t i = 0; i < P; ++i) {
    const double robust = weighted.covariance[i * (P + 1)];
    EXPECT_NEAR(elements(scaled.parameters)[i], found[i], 1e-8 * (1.0 + std::fabs(found[i]))) << words << " " << i;
    EXPECT_NEAR(scaled.covariance[i * (P + 1)], robust, 1e-6 * robust) << words << " " << i;
  }
}

TEST(MovingQuadrature, WeightsAreCopies) {
  for (const Case& c : {cases[1], cases[3], cases[5]})
    for (const int level : {1, 2, 3})
      for (const int points : {1, 11}) expectcopies(c, level, points);
}

std::vector<double> numbersof(const MovingResult& result) {
  std::vector<double> all = elements(result.parameters);
  all.insert(all.end(), {result.loglikelihood, result.distance, result.check.change, result.check.errorchange});
  all.insert(all.end(), result.covariance.begin(), result.covariance.end());
  return all;
}

TEST(MovingQuadrature, TheSameBytesForAnyNumberOfThreads) {
  for (const int points : {1, 5}) {
    const auto bytes = [points](int threads, std::size_t batchsize) {
      Study study = readcase(cases[1]);
      study.batchsize = batchsize;
      return numbersof(fit(study, makeparameters(2, 1, reference("bernoulli21", "start")), points, {}, threads));
    };
    const std::vector<double> one = bytes(1, 5);
    EXPECT_EQ(one, bytes(2, 5)) << points;
    EXPECT_EQ(one, bytes(3, 7)) << points;
  }
}

// Another unit and another origin of the predictor with a random slope, in units of standard errors.
TEST(MovingQuadrature, PredictorsOfAnyUnitAndOrigin) {
  const Case& c = cases[2];
  const std::vector<double> theta = reference(c.name, "start");
  Study plain = readcase(c);
  const MovingResult wanted = fit(plain, makeparameters(2, 2, theta), 5);
  ASSERT_EQ(wanted.end, MovingEnd::converged);
  for (const double scale : {1e-6, 1e6})
    for (const double origin : {0.0, 100.0}) {
      std::vector<Record> records = readrecords(folder + c.name + ".dat");
      for (Record& record : records) record.x = scale * (record.x + origin);
      Study study = makestudy(c.outcome, 2, 2, records);
      // u0 + u1 x = (u0 - origin u1) + u1 / scale (scale (x + origin))
      const auto moved = [&](std::size_t first, std::vector<double>& to) {
        const double a = theta[first], b = theta[first + 1], d = theta[first + 2];
        to[first] = a - 2.0 * origin * b + origin * origin * d;
        to[first + 1] = (b - origin * d) / scale;
        to[first + 2] = d / (scale * scale);
      };
      std::vector<double> start = theta;
      moved(0, start);
      moved(3, start);
      start[6] -= origin * theta[9];
      start[9] /= scale;
      const MovingResult result = fit(study, makeparameters(2, 2, start), 5);
      ASSERT_EQ(result.end, MovingEnd::converged) << scale << " " << origin;
      EXPECT_NEAR(result.loglikelihood, wanted.loglikelihood, 1e-7);
      const std::size_t P = result.parameters.count();
      const double factors[] = {scale * scale, scale};  // of the slope's variance, and of its fixed effect
      const std::size_t places[] = {2, 9};
      for (int i = 0; i < 2; ++i) {
        const std::size_t at = places[i];
        EXPECT_NEAR(elements(result.parameters)[at] * factors[i] / elements(wanted.parameters)[at], 1.0, 1e-6);
        EXPECT_NEAR(std::sqrt(result.covariance[at * P + at]) * factors[i] / std::sqrt(wanted.covariance[at * P + at]),
                    1.0, 1e-6);
      }
    }
}

// Log-likelihood without effects.
double plain(const Study& study, const Array<double>& gamma) {
  double sum = 0.0;
  for (const Level3Records& unit : study.units)
    for (int j = 0; j < unit.units; ++j)
      for (std::size_t i = unit.start[at(j)]; i < unit.start[at(j) + 1]; ++i) {
        const double eta =
            gamma[0] + gamma[1] * unit.w3[1] + gamma[2] * unit.w2[at(j) * 3 + 1] + gamma[3] * unit.x[2 * i + 1];
        sum += unit.y[i] * eta - std::log1p(std::exp(eta));
      }
  return sum;
}

// Variances of 0 at one level or both: the same from starts on either side, no standard error for what is at its edge,
// and the log-likelihood of the model without it, which no nested model exceeds.
TEST(MovingQuadrature, VariancesOfZero) {
  int edges2 = 0, edges3 = 0, both = 0;
  for (unsigned seed = 1; seed <= 12; ++seed) {
    const Parameters truth = makeparameters(1, 1, {1e-9, 1e-9, 0.2, 0.3, -0.3, 0.5});
    Study study = makestudy(bernoulli, 1, 1, drawrecords(seed, 12, 4, 5, truth));
    std::vector<double> heights;
    MovingResult last;
    for (const double start : {0.0, 1e-6, 0.3, 4.0}) {
      last = fit(study, makeparameters(1, 1, {start, start, 0.0, 0.0, 0.0, 0.0}), 7);
      ASSERT_EQ(last.end, MovingEnd::converged) << seed << " " << start;
      EXPECT_TRUE(last.warnings.empty()) << seed << " " << last.warnings[0];
      heights.push_back(last.loglikelihood);
      EXPECT_EQ(last.edge[0], last.parameters.taupi[0] == 0.0);
      EXPECT_EQ(last.edge[1], last.parameters.taubeta[0] == 0.0);
      EXPECT_EQ(last.edge[0], last.covariance[0] == 0.0);
      for (std::size_t i = 2; i < 6; ++i) EXPECT_GT(last.covariance[i * 7], 0.0);
    }
    for (const double height : heights) EXPECT_NEAR(height, heights[0], 1e-4) << seed;
    edges2 += last.edge[0] && !last.edge[1];
    edges3 += last.edge[1] && !last.edge[0];
    if (!last.edge[0] || !last.edge[1]) continue;
    ++both;
    EXPECT_NEAR(last.loglikelihood, plain(study, last.parameters.gamma), 1e-6) << seed;
  }
  EXPECT_TRUE(edges2 > 0 && edges3 > 0 && both > 0) << edges2 << edges3 << both;
}

// Slopes that go with the intercepts wholly, and slopes that don't vary.
TEST(MovingQuadrature, SingularMatrices) {
  int singular = 0;
  for (unsigned seed = 1; seed <= 6; ++seed) {
    const Parameters truth = makeparameters(2, 1, {0.64, 0.479999, 0.36, 0.3, 0.2, 0.3, -0.3, 0.5});
    Study study = makestudy(bernoulli, 2, 1, drawrecords(100 + seed, 15, 4, 8, truth));
    std::vector<double> heights;
    for (const double start : {0.01, 0.5, 3.0}) {
      const MovingResult result = fit(study, makeparameters(2, 1, {start, 0.0, start, start, 0.0, 0.0, 0.0, 0.0}), 7);
      ASSERT_EQ(result.end, MovingEnd::converged) << seed << " " << start;
      heights.push_back(result.loglikelihood);
      singular += result.singularpi;
      if (result.singularpi && result.parameters.taupi[0] > 0.0) {
        EXPECT_NEAR(result.parameters.taupi[1] * result.parameters.taupi[1] /
                        (result.parameters.taupi[0] * result.parameters.taupi[3]),
                    1.0, 1e-9);
      }
    }
    for (const double height : heights) EXPECT_NEAR(height, heights[0], 2e-4) << seed;
  }
  EXPECT_GT(singular, 3);
}

// One record a level-2 unit and all outcomes alike in each level-3 unit: the likelihood rises with a variance for ever.
TEST(MovingQuadrature, NoMaximumAndTooManyNodes) {
  std::vector<Record> records;
  for (int k = 0; k < 20; ++k)
    for (int j = 0; j < 6; ++j)
      for (int i = 0; i < 4; ++i)
        records.push_back({k, j, k % 2 == 0 ? 1.0 : 0.0, 1.0, 0.1 * (i + k % 3), 0.1 * (j % 3), 0.1 * (k % 5)});
  Study study = makestudy(bernoulli, 1, 1, records);
  const MovingResult result = fit(study, makeparameters(1, 1, {0.5, 0.5, 0.0, 0.0, 0.0, 0.0}), 7);
  EXPECT_NE(result.end, MovingEnd::converged);
  EXPECT_FALSE(result.warnings.empty());

  Study many = readcase(cases[2]);
  const MovingResult none = fit(many, makeparameters(2, 2, reference("bernoulli22", "start")), 41);
  EXPECT_EQ(none.end, MovingEnd::toomanynodes);
  EXPECT_FALSE(none.usable);
  // No room for the next number: the check is left out with a note, and AUTO ends with a warning where none agree.
  Study few = readcase(cases[1]);
  const Parameters start = makeparameters(2, 1, reference("bernoulli21", "start"));
  MovingSettings small;
  small.mostnodes = 400.0;
  small.errorsagree = 1e-9;
  const MovingResult unchecked = fit(few, start, 7, small), ended = fit(few, start, 0, small);
  EXPECT_EQ(unchecked.end, MovingEnd::converged);
  EXPECT_TRUE(unchecked.warnings.empty() && !unchecked.check.made);
  ASSERT_EQ(unchecked.notes.size(), 1u);
  EXPECT_NE(unchecked.notes[0].find("11 points for 3 effects"), std::string::npos);
  EXPECT_EQ(ended.points, 7);
  ASSERT_EQ(ended.warnings.size(), 2u);
  EXPECT_NE(ended.warnings[0].find("ended at 7: 11 points for 3 effects"), std::string::npos);
  EXPECT_NE(ended.warnings[1].find("no number of quadrature points up to 7 was enough"), std::string::npos);
  small.sixth = true;
  EXPECT_EQ(fit(few, {11, 1, 4, {}, {}, {}}, 1, small).end, MovingEnd::toomanynodes);
}

}  // namespace
