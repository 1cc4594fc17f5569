// Ordinal outcomes on the quadrature whose nodes go with the data: binary records of cuts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "estimate/quadrature/cuts.h"
#include "estimate/quadrature/movingstudy.h"

namespace {

using namespace kdr;
using namespace madestudy;
using namespace movingstudy;

// The model of madestudy.h with thresholds as its last columns and fixed effects. `units` hold the categories.
Study ordinalstudy(int q, int r, std::vector<Record> records, int categories) {
  Study study = makestudy({Family::ordinal, categories}, q, r, records);
  const std::size_t thresholds = at(categories - 2);
  const auto grown = [&](Array<int>& list, std::size_t from) {
    for (std::size_t c = 0; c < thresholds; ++c) {
      const std::size_t last = list.size();
      list.resize(last + 1);
      list[last] = static_cast<int>(from + c);
    }
  };
  grown(study.design.owner2, 2);
  grown(study.design.owner3, 3);
  grown(study.design.reduced, 4);
  study.npi += categories - 2;
  study.nbeta += categories - 2;
  const auto widened = [thresholds](const Array<double>& given, std::size_t width) {
    const std::size_t rows = given.size() / width;
    Array<double> wide(rows * (width + thresholds));
    wide.fill(1.0);
    for (std::size_t i = 0; i < rows; ++i)
      std::copy_n(given.data() + i * width, width, wide.data() + i * (width + thresholds));
    return wide;
  };
  for (Level3Records& unit : study.units) {
    unit.x = widened(unit.x, 2);
    unit.w2 = widened(unit.w2, 3);
    unit.w3 = widened(unit.w3, 4);
  }
  return study;
}

// `thresholds`: t_2, t_3, ...
std::vector<Record> drawordinal(unsigned seed, int units3, const Parameters& truth,
                                const std::vector<double>& thresholds) {
  std::vector<Record> records = drawrecords(seed, units3, 4, 6, truth);
  std::mt19937 rng(seed + 1);
  std::uniform_real_distribution<double> uniform;
  for (Record& record : records) {
    // Given success at the first cut the category is 0; else it follows the same logistic error, above its cut.
    const double eta = 0.5 * record.x;
    const double u = uniform(rng), error = std::log(u / (1.0 - u));
    record.y = record.y == 1.0 ? 0.0 : 1.0;
    for (const double t : thresholds) record.y += record.y > 0.0 && error > eta + t ? 1.0 : 0.0;
  }
  return records;
}

// The log-likelihood without effects, from the definition.
double plain(const Study& study, const Array<double>& gamma, int categories) {
  const auto F = [](double x) { return 1.0 / (1.0 + std::exp(-x)); };
  double sum = 0.0;
  for (const Level3Records& unit : study.units)
    for (std::size_t j = 0; j < at(unit.units); ++j)
      for (std::size_t i = unit.start[j]; i < unit.start[j + 1]; ++i) {
        const std::size_t wide = at(study.npi), c = static_cast<std::size_t>(unit.y[i]);
        const double eta = gamma[0] + gamma[1] * unit.w3[1] +
                           gamma[2] * unit.w2[j * at(study.nbeta) + (study.r == 2 ? 2 : 1)] +
                           gamma[3] * unit.x[i * wide + 1];
        const auto t = [&](std::size_t cut) { return cut == 0 ? 0.0 : gamma[3 + cut]; };
        const double upper = c + 1 == at(categories) ? 1.0 : F(eta + t(c)), lower = c == 0 ? 0.0 : F(eta + t(c - 1));
        sum += std::log(upper - lower);
      }
  return sum;
}

Study cutstudy(const Study& given) {
  Study cut;
  cut.q = given.q;
  cut.r = given.r;
  cut.npi = given.npi;
  cut.nbeta = given.nbeta;
  cut.outcome = given.outcome;
  cut.units2 = given.units2;
  for (Array<int> Design::*list : {&Design::owner2, &Design::owner3, &Design::reduced, &Design::random1})
    cut.design.*list = (given.design.*list).copy();
  for (const Level3Records& unit : given.units) cut.units.push_back(cutrecords(unit, given.outcome.categories));
  return cut;
}

struct Trial {
  int q, r, categories;
  std::vector<double> theta;
};
const Trial trials[] = {{1, 1, 4, {0.5, 0.3, -0.4, 0.3, -0.2, 0.5, 0.7, 2.0}},
                        {2, 1, 3, {0.5, 0.1, 0.3, 0.3, -0.4, 0.3, -0.2, 0.5, 0.02}},
                        {2, 2, 5, {0.5, 0.1, 0.3, 0.3, 0.1, 0.2, -0.4, 0.3, -0.2, 0.5, 0.7, 0.9, 3.0}}};

Study studyof(const Trial& trial) {
  const std::size_t taus = packedsize(trial.q) + packedsize(trial.r);
  const auto gamma = trial.theta.begin() + static_cast<std::ptrdiff_t>(taus);
  const Parameters truth = makeparameters(trial.q, trial.r, {trial.theta.begin(), gamma + 4});
  return ordinalstudy(trial.q, trial.r, drawordinal(7, 12, truth, {gamma + 4, trial.theta.end()}), trial.categories);
}

TEST(Ordinal, DerivativesAndTheDefinition) {
  for (const Trial& trial : trials) {
    const Study given = studyof(trial);
    Study study = cutstudy(given);
    RecordSource source = study.source();
    const Parameters place = makeparameters(trial.q, trial.r, trial.theta);
    SphericalLikelihood likelihood = likelihoodof(study, source, place, 4);
    ASSERT_EQ(likelihood.frame.thresholds, trial.categories - 2);
    Array<double> point = pointof(likelihood.frame, place);
    const std::size_t P = point.size(), taus = P - place.gamma.size();
    const std::vector<double> back = elements(parametersof(likelihood.frame, point));
    for (std::size_t i = 0; i < P; ++i) EXPECT_NEAR(back[i], trial.theta[i], 1e-12);

    Array<double> flat = point.copy();
    std::fill_n(flat.data(), taus, 0.0);
    Nodes nodes = makenodes(likelihood.frame);
    ASSERT_TRUE(placemodes(likelihood, flat, nodes, nullptr));
    likelihood.trial.nodes = nodes.copy();
    EXPECT_NEAR(evaluatespherical(likelihood, flat).value, plain(given, place.gamma, trial.categories), 1e-9);

    point = besides(point);
    expectlaplacescore(likelihood, point, 1e-6, "Laplace");
    expectderivatives(likelihood, point, "nodes");
    const Array<double> J = parameterderivatives(likelihood.frame, point);
    for (std::size_t i = 0; i < P; ++i) {
      constexpr double h = 1e-5;
      const std::vector<double> more = elements(parametersof(likelihood.frame, moved(point, i, h))),
                                less = elements(parametersof(likelihood.frame, moved(point, i, -h)));
      for (std::size_t l = 0; l < P; ++l) EXPECT_NEAR(J[l * P + i], (more[l] - less[l]) / (2.0 * h), 1e-7);
    }
  }
}

MovingResult fitcuts(const Study& given, const Parameters& start, int points, MovingSettings settings = {}) {
  Study study = cutstudy(given);
  return fit(study, start, points, std::move(settings));
}

// One maximum from every start, those with thresholds out of order too, and from a regression; turned outcomes have
// that of turned effects.
TEST(Ordinal, OneMaximumFromAnywhere) {
  const Trial& trial = trials[0];
  const Study study = studyof(trial);
  const MovingResult wanted = fitcuts(study, makeparameters(1, 1, trial.theta), 7);
  ASSERT_EQ(wanted.end, MovingEnd::converged);
  EXPECT_TRUE(wanted.warnings.empty());
  const std::size_t P = wanted.parameters.count(), records = 12 * 4 * 6;
  EXPECT_EQ(wanted.records, records);
  for (const std::vector<double>& gamma :
       {std::vector<double>{0, 0, 0, 0, 3, 1}, {0, 0, 0, 0, 0, 0}, {9, 0, 0, 5, 30, 31}}) {
    std::vector<double> theta{1.0, 1.0};
    theta.insert(theta.end(), gamma.begin(), gamma.end());
    const MovingResult result = fitcuts(study, makeparameters(1, 1, theta), 7);
    EXPECT_EQ(result.end, MovingEnd::converged) << gamma[0];
    EXPECT_NEAR(result.loglikelihood, wanted.loglikelihood, 1e-5) << gamma[0];
  }
  Parameters none;
  none.q = none.r = 1;
  none.g = 6;
  EXPECT_NEAR(fitcuts(study, none, 7).loglikelihood, wanted.loglikelihood, 1e-5);

  Study turned = studyof(trial);
  for (Level3Records& unit : turned.units)
    for (double& y : unit.y) y = trial.categories - 1 - y;
  const MovingResult other = fitcuts(turned, none, 7);
  EXPECT_NEAR(other.loglikelihood, wanted.loglikelihood, 1e-5);
  const Array<double>&g = wanted.parameters.gamma, &h = other.parameters.gamma;
  const double last = g[5];
  const double expected[] = {-g[0] - last, -g[1], -g[2], -g[3], last - g[4], last};
  for (std::size_t i = 0; i < 6; ++i) {
    const double error = std::sqrt(wanted.covariance[(2 + i) * (P + 1)]);
    EXPECT_NEAR(h[i], expected[i], 0.003 * error) << i;
    if (i == 0 || i == 4) continue;  // those of other combinations
    EXPECT_NEAR(std::sqrt(other.covariance[(2 + i) * (P + 1)]), error, 0.002 * error) << i;
  }
  // The scores of the units are whole: their outer products are an information of about the same size.
  MovingSettings settings;
  settings.outerproducts = true;
  const MovingResult outer = fitcuts(study, none, 7, settings);
  for (std::size_t i = 2; i < P; ++i) {
    const double share = outer.covariance[i * (P + 1)] / wanted.covariance[i * (P + 1)];
    EXPECT_TRUE(share > 0.1 && share < 20.0) << i << " " << share;
  }
}

}  // namespace
