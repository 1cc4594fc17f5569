#include "estimate/quadrature/quadrature.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <random>
#include <sstream>

#include "estimate/likelihood/madestudy.h"
#include "estimate/likelihood/marks.h"
#include "estimate/quadrature/densecases.h"
#include "estimate/quadrature/quadraturenodes.h"

namespace {

using namespace kdr;
using namespace madestudy;
using namespace densecases;
using marks::Marks;

TEST(QuadratureNodes, AreExactForPolynomials) {
  for (int n = 3; n <= 40; ++n) {
    std::vector<double> x(at(n)), w(at(n));
    ASSERT_TRUE(gauher(n, x.data(), w.data())) << n;
    double moment = std::sqrt(M_PI);  // int x^d exp(-x^2), even d
    for (int d = 0; d < std::min(2 * n, 20); d += 2) {
      double sum = 0.0, odd = 0.0;
      for (std::size_t i = 0; i < at(n); ++i) {
        sum += w[i] * std::pow(x[i], d);
        odd += w[i] * std::pow(x[i], d + 1);
      }
      EXPECT_NEAR(sum / moment, 1.0, 1e-11) << n << " " << d;
      EXPECT_NEAR(odd / moment, 0.0, 1e-10) << n << " " << d;
      moment *= (d + 1) / 2.0;
    }
    EXPECT_TRUE(std::is_sorted(x.rbegin(), x.rend()));
  }
}

TEST(QuadratureNodes, KnownValuesAndTooFewOrTooManyPoints) {
  double x[5], w[5];
  ASSERT_TRUE(gauher(5, x, w));
  EXPECT_NEAR(x[0], 2.0201828704560856, 1e-13);
  EXPECT_NEAR(x[1], 0.9585724646138185, 1e-13);
  EXPECT_NEAR(x[2], 0.0, 1e-13);
  EXPECT_NEAR(w[0], 0.019953242059045913, 1e-14);
  EXPECT_NEAR(w[1], 0.39361932315224116, 1e-14);
  EXPECT_FALSE(gauher(1, x, w));
  EXPECT_FALSE(gauher(2, x, w));
  // A search that ends at another's root leaves sums that look like integrals; 1000 points overflow the recurrence.
  std::vector<double> nodes(1000), weights(1000);
  EXPECT_TRUE(gauher(198, nodes.data(), weights.data()));
  for (const int n : {199, 224, 258, 344, 460, 589, 1000}) EXPECT_FALSE(gauher(n, nodes.data(), weights.data())) << n;
}

std::int64_t unitsapart(double a, double b) {
  return std::abs(std::bit_cast<std::int64_t>(a) - std::bit_cast<std::int64_t>(b));
}

TEST(QuadratureLoops, ExponentialsAndLogarithmsOfTheLibrary) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> wide(-708.0, 708.0), narrow(-2.0, 2.0);
  std::int64_t worstexp = 0, worstlog = 0;
  for (int i = 0; i < 200000; ++i) {
    const double given[4] = {wide(rng), narrow(rng), 0.0, narrow(rng) * 1e-9};
    double values[4] = {given[0], given[1], given[2], given[3]};
    fastestquadratureloops().exponentials(values, 4);
    for (int l = 0; l < 4; ++l) worstexp = std::max(worstexp, unitsapart(values[l], std::exp(given[l])));
    double logs[4] = {values[0], values[1], 1.0 + 1e-3 * given[1], values[3]};
    const double arguments[4] = {logs[0], logs[1], logs[2], logs[3]};
    fastestquadratureloops().logarithms(logs, 4);
    for (int l = 0; l < 4; ++l) worstlog = std::max(worstlog, unitsapart(logs[l], std::log(arguments[l])));
  }
  EXPECT_LE(worstexp, 2);
  EXPECT_LE(worstlog, 2);
  double limits[4] = {-1e300, 1e300, -708.0, 709.0};
  fastestquadratureloops().exponentials(limits, 4);
  EXPECT_EQ(limits[0], limits[2]);
  EXPECT_EQ(limits[1], limits[3]);
}

// The report of a run must not depend on the machine.
// z and w of logits by the formulas, one record after the other, with the sums in the wider type.
TEST(QuadratureLoops, WorkingLogitsAreTheFormulas) {
  std::mt19937 random(5);
  for (const bool trials : {false, true})
    for (const std::size_t records : {1U, 4U, 7U}) {
      const std::size_t stride = padded(records);
      std::vector<double> eta(stride), y(stride), n(stride, 1.0), z(stride), root(stride), other(2 * stride);
      long long held = 0, mute = 0;
      for (std::size_t i = 0; i < records; ++i) {
        eta[i] = std::uniform_real_distribution<>(-60.0, 60.0)(random);
        n[i] = trials ? std::pow(10.0, static_cast<double>(random() % 9)) : 1.0;
        y[i] = trials ? std::floor(0.3 * n[i]) : static_cast<double>(random() % 2);
      }
      LogitRecords loop;
      loop.stride = stride;
      loop.eta = eta.data();
      loop.y = y.data();
      loop.n = trials ? n.data() : nullptr;
      loop.largest = 1.0e3;
      loop.least = 1.0e-4;
      loop.z = z.data();
      loop.root = root.data();
      fastestquadratureloops().workinglogits(loop);
      for (std::size_t i = 0; i < records; ++i) {
        const long double mu = 1.0L / (1.0L + std::exp(-static_cast<long double>(eta[i])));
        const long double w = n[i] * mu / (1.0L + std::exp(static_cast<long double>(eta[i])));
        const double due = static_cast<double>(eta[i] + (y[i] - n[i] * mu) / w);
        EXPECT_NEAR(z[i], due, 1e-13 * (std::fabs(due) + std::fabs(eta[i]) + static_cast<double>(n[i] / w)));
        EXPECT_NEAR(root[i], static_cast<double>(std::sqrt(std::min(w, 1.0e3L))), 1e-13 * root[i]);
        held += w >= 1.0e3L;
        mute += w < 1.0e-4L;
      }
      EXPECT_EQ(loop.held, held);
      EXPECT_EQ(loop.mute, mute);
      loop.z = other.data();
      loop.root = other.data() + stride;
      baseline::quadratureloops.workinglogits(loop);
      EXPECT_EQ(std::vector<double>(other.begin(), other.begin() + static_cast<std::ptrdiff_t>(records)),
                std::vector<double>(z.begin(), z.begin() + static_cast<std::ptrdiff_t>(records)));
    }
}

TEST(QuadratureLoops, EverySetOfInstructionsGivesTheSameBits) {
  if (&fastestquadratureloops() == &baseline::quadratureloops) GTEST_SKIP() << "this machine has no other set";
  std::mt19937 rng(5);
  std::normal_distribution<double> normal(0.0, 3.0);
  constexpr std::size_t records = 45, npi = 3, pairs = 28;
  for (const std::size_t dims : {2U, 3U, 5U}) {
    std::vector<double> x(records * npi), rows(records * dims), fixed(records), y(records), n(records),
        nodes(dims * pairs);
    for (std::vector<double>* list : {&x, &rows, &fixed, &nodes})
      for (double& value : *list) value = normal(rng);
    for (int type = 0; type < 4; ++type) {
      for (std::size_t i = 0; i < records; ++i) {
        n[i] = type == 1 ? 3.0 : 0.4;
        y[i] = type == 0 ? static_cast<double>(i % 2) : static_cast<double>(i % 4);
      }
      const auto written = [&](const QuadratureLoops& loops) {
        std::vector<double> density(pairs), gradient(npi * pairs), weights(records * pairs), work(pairs);
        loops.moments[type]({records, npi, dims, pairs, x.data(), rows.data(), fixed.data(), y.data(), n.data(),
                             nodes.data(), density.data(), gradient.data(), weights.data(), work.data()});
        std::vector<double> alone(pairs);
        loops.density[type]({records, npi, dims, pairs, x.data(), rows.data(), fixed.data(), y.data(), n.data(),
                             nodes.data(), alone.data(), nullptr, nullptr, work.data()});
        EXPECT_EQ(alone, density);
        density.insert(density.end(), gradient.begin(), gradient.end());
        density.insert(density.end(), weights.begin(), weights.end());
        return density;
      };
      EXPECT_EQ(written(baseline::quadratureloops), written(fastestquadratureloops())) << dims << " " << type;
    }
  }
}

// log f, its derivative by the predictor and minus its second one, without the terms of the outcome alone.
std::array<double, 3> densityof(int type, double eta, double y, double n) {
  if (type >= 2) return {y * eta - std::exp(eta), y - std::exp(eta), std::exp(eta)};
  const double trials = type == 0 ? 1.0 : n, mu = 1.0 / (1.0 + std::exp(-eta));
  return {y * eta - trials * std::log1p(std::exp(eta)), y - trials * mu, trials * mu * (1.0 - mu)};
}

// Every pair of nodes, of every number of columns, dimensions and points, from the definition.
TEST(QuadratureLoops, RecordsOfAUnitAtItsNodes) {
  std::mt19937 rng(7);
  std::normal_distribution<double> normal(0.0, 0.7);
  constexpr std::size_t records = 9;
  const auto power = [](std::size_t base, std::size_t exponent) {
    std::size_t value = 1;
    for (; exponent > 0; --exponent) value *= base;
    return value;
  };
  for (int type = 0; type < 4; ++type)
    for (const std::size_t npi : {1U, 2U, 3U, 4U})
      for (const auto& [dims3, dims2] : {std::pair<std::size_t, std::size_t>{1, 1}, {1, 2}, {2, 1}})
        for (const std::size_t points : {1U, 3U, 5U, 6U, 11U}) {
          const std::size_t dims = dims3 + dims2, linestride = (points + 3) / 4 * 4, nodes2 = power(points, dims2),
                            nodes3 = power(points, dims3), length = (nodes2 + 3) / 4 * 4, first = nodes3 / 3,
                            segments = nodes3 - first, outerstride = (segments + 3) / 4 * 4, pairs = segments * length,
                            packed = npi * (npi + 1) / 2, rows = npi <= mostpacked ? packed : records;
          std::vector<double> line(linestride), x(records * npi), effects(records * dims), fixed(records), y(records),
              n(records, 3.0);
          for (std::size_t t = 0; t < points; ++t)
            line[t] = 0.5 * (static_cast<double>(points) - 1.0) - static_cast<double>(t);
          std::vector<unsigned char> digits3, digits2;
          for (std::size_t d = 0, step = 1; d < dims3; ++d, step *= points)
            for (std::size_t m = 0; m < nodes3; ++m) digits3.push_back(static_cast<unsigned char>(m / step % points));
          for (std::size_t d = 0, step = 1; d < dims2; ++d, step *= points)
            for (std::size_t l = 0; l < nodes2; ++l) digits2.push_back(static_cast<unsigned char>(l / step % points));
          for (std::vector<double>* list : {&x, &effects, &fixed})
            for (double& value : *list) value = normal(rng);
          // Runs of equal effects, as of random intercepts, are worked once.
          for (std::size_t i = 4; i < 7; ++i) std::copy_n(effects.data() + 3 * dims, dims, effects.data() + i * dims);
          for (std::size_t i = 0; i < records; ++i) y[i] = static_cast<double>(type == 0 ? i % 2 : i % 4);
          const auto written = [&](const QuadratureLoops& loops) {
            std::vector<double> density(pairs), gradient(npi * pairs), weights(rows * pairs),
                outer(records * outerstride), inner(records * length + 4), linear(outerstride + length),
                work(dims * (2 * linestride + 1) + outerstride + records + 4);
            loops.exact[type]({records,         npi,
                               dims3,           dims2,
                               points,          linestride,
                               line.data(),     nodes3,
                               nodes2,          digits3.data(),
                               digits2.data(),  first,
                               segments,        length,
                               outerstride,     x.data(),
                               effects.data(),  fixed.data(),
                               y.data(),        type == 1 ? n.data() : nullptr,
                               pairs,           density.data(),
                               gradient.data(), weights.data(),
                               outer.data(),    inner.data(),
                               linear.data(),   work.data()});
            for (const std::vector<double>* more : {&gradient, &weights})
              density.insert(density.end(), more->begin(), more->end());
            return density;
          };
          const std::vector<double> found = written(fastestquadratureloops());
          EXPECT_EQ(written(baseline::quadratureloops), found);
          double worst = 0.0;
          for (std::size_t m = 0; m < segments; ++m)
            for (std::size_t l = 0; l < nodes2; ++l) {
              std::vector<double> right(1 + npi + rows);
              for (std::size_t i = 0; i < records; ++i) {
                double eta = fixed[i];
                for (std::size_t d = 0; d < dims3; ++d)
                  eta += effects[i * dims + d] * line[digits3[d * nodes3 + first + m]];
                for (std::size_t d = 0; d < dims2; ++d)
                  eta += effects[i * dims + dims3 + d] * line[digits2[d * nodes2 + l]];
                const auto [density, residual, weight] = densityof(type, eta, y[i], n[i]);
                right[0] += density;
                for (std::size_t c = 0, e = 0; c < npi; ++c) {
                  right[1 + c] += x[i * npi + c] * residual;
                  for (std::size_t d = 0; d <= c && npi <= mostpacked; ++d, ++e)
                    right[1 + npi + e] += weight * x[i * npi + c] * x[i * npi + d];
                }
                if (npi > mostpacked) right[1 + npi + i] = weight;
              }
              for (std::size_t e = 0; e < right.size(); ++e)
                worst = std::max(worst, std::fabs(found[e * pairs + m * length + l] - right[e]) /
                                            std::max(1.0, std::fabs(right[e])));
            }
          EXPECT_LE(worst, 1e-12) << type << " " << npi << " " << dims3 << dims2 << " " << points;
        }
}

// Records at one value of the effects, far ones included.
TEST(QuadratureLoops, RecordsOfAUnitAtItsModes) {
  std::mt19937 rng(9);
  std::normal_distribution<double> normal(0.0, 1.0);
  constexpr std::size_t records = 2003, stride = 2004;
  for (int type = 0; type < 4; ++type)
    for (const std::size_t npi : {1U, 2U, 3U, 4U}) {
      const std::size_t packed = npi * (npi + 1) / 2;
      std::vector<double> columns(npi * stride), y(stride), n(stride), offset(stride), coefficients(npi), Q(npi * npi);
      for (std::vector<double>* list : {&coefficients, &Q})
        for (double& value : *list) value = normal(rng);
      for (std::size_t i = 0; i < records; ++i) {
        for (std::size_t c = 0; c < npi; ++c)
          columns[c * stride + i] = type < 2 && i % 50 == 7 ? 20.0 * normal(rng) : normal(rng);
        y[i] = static_cast<double>(type == 0 ? i % 2 : i % 4);
        n[i] = type == 1 ? 3.0 : 1.0;
        offset[i] = type == 3 ? 0.3 * normal(rng) : 0.0;
      }
      const auto written = [&](const QuadratureLoops& loops) {
        std::vector<double> found(1 + npi + packed + npi), D(stride), work(4 * (npi + packed));
        const RecordColumns unit{npi,
                                 stride,
                                 columns.data(),
                                 y.data(),
                                 n.data(),
                                 offset.data(),
                                 coefficients.data(),
                                 found.data() + 1,
                                 found.data() + 1 + npi,
                                 D.data(),
                                 work.data()};
        found[0] = loops.recordsums[type](unit);
        loops.formsums(unit, Q.data(), found.data() + 1 + npi + packed);
        return found;
      };
      const std::vector<double> found = written(fastestquadratureloops());
      EXPECT_EQ(written(baseline::quadratureloops), found);
      std::vector<double> right(found.size());
      for (std::size_t i = 0; i < records; ++i) {
        double eta = offset[i], form = 0.0;
        const auto x = [&](std::size_t c) { return columns[c * stride + i]; };
        for (std::size_t c = 0; c < npi; ++c) eta += coefficients[c] * x(c);
        for (std::size_t c = 0; c < npi; ++c)
          for (std::size_t d = 0; d < npi; ++d) form += Q[c * npi + d] * x(c) * x(d);
        const auto [density, residual, weight] = densityof(type, eta, y[i], n[i]);
        const double third = type >= 2 ? weight : weight * (1.0 - 2.0 / (1.0 + std::exp(-eta)));
        right[0] += density;
        for (std::size_t c = 0, e = 0; c < npi; ++c) {
          right[1 + c] += x(c) * residual;
          right[1 + npi + packed + c] -= 0.5 * third * form * x(c);
          for (std::size_t d = 0; d <= c; ++d, ++e) right[1 + npi + e] += weight * x(c) * x(d);
        }
      }
      for (std::size_t e = 0; e < right.size(); ++e)
        EXPECT_NEAR(found[e], right[e], 1e-10 * std::max(1.0, std::fabs(right[e]))) << type << " " << npi << " " << e;
    }
}

// The walks over a study at any place.
struct Walker {
  Study& study;
  RecordSource source;
  QuadratureModel model;
  QuadratureData data;
  Walker(Study& made, int points) : study(made), source(made.source()) {
    model.outcome = made.outcome.family;
    model.npi = made.npi;
    model.nbeta = made.nbeta;
    model.q = made.q;
    model.r = made.r;
    model.g = 4;
    model.design = &made.design;
    EXPECT_TRUE(makegrid(model.grid2, points, made.q) && makegrid(model.grid3, points, made.r));
    data.model = &model;
    data.source = &source;
    EXPECT_TRUE(countdata(data));
  }
  static Adaptation like(const Adaptation& a) { return {a.vstar.copy(), a.C3.copy(), a.ustar.copy(), a.P.copy()}; }
};

// At a fixed adaptation the score is the gradient of twice the log-likelihood. So is the information its curvature,
// once the expected second derivatives of the random effects' densities are replaced by those at the posterior moments.
TEST(Quadrature, ScoreAndInformationAreDerivatives) {
  for (const Case& c : cases) {
    Study study = readcase(c);
    study.units.resize(6);
    std::vector<double> theta = reference(c.name, "start");
    for (std::size_t i = 0; i < theta.size(); ++i) theta[i] += 0.02 * static_cast<double>(i + 1);
    const Parameters place = makeparameters(c.q, c.r, theta);
    Walker walker(study, 4);
    const Adaptation adaptation = posteriormodes(study, place);
    Adaptation next = Walker::like(adaptation);
    const QuadratureWalk centre = walk(walker.data, place, adaptation, &next);
    const std::size_t P = theta.size();

    // 2 wt_ab (K E K D K + K D K E K)_ab with D = sum_j E[u u'] - J T, E the direction of element (c, d).
    std::vector<double> correction(P * P);
    const auto correct = [&](std::size_t first, std::size_t n, const Array<double>& T, const Array<double>& means,
                             const Array<double>& covariances, std::size_t units) {
      dense::Matrix Tau(static_cast<int>(n), static_cast<int>(n)), D = Tau;
      for (std::size_t a = 0; a < n * n; ++a) Tau.cells[a] = T[a];
      for (std::size_t j = 0; j < units; ++j)
        for (std::size_t a = 0; a < n; ++a)
          for (std::size_t b = 0; b < n; ++b)
            D.cells[a * n + b] +=
                covariances[j * n * n + a * n + b] + means[j * n + a] * means[j * n + b] - T[a * n + b];
      const dense::Matrix K = dense::inverse(Tau);
      std::size_t column = first;
      for (int e = 0; e < static_cast<int>(n); ++e)
        for (int d = 0; d <= e; ++d, ++column) {
          dense::Matrix E(static_cast<int>(n), static_cast<int>(n));
          E(e, d) = E(d, e) = 1.0;
          const dense::Matrix R = K * E * K * D * K + K * D * K * E * K;
          std::size_t row = first;
          for (int a = 0; a < static_cast<int>(n); ++a)
            for (int b = 0; b <= a; ++b, ++row) correction[row * P + column] = 2.0 * (a == b ? 0.5 : 1.0) * R(a, b);
        }
    };
    const std::size_t units2 = study.units.back().firstunit + at(study.units.back().units);
    correct(0, at(c.q), place.taupi, next.ustar, next.P, units2);
    correct(place.ntaupi(), at(c.r), place.taubeta, next.vstar, next.C3, study.units.size());

    for (std::size_t i = 0; i < P; ++i) {
      constexpr double h = 1e-5;
      std::vector<double> up = theta, down = theta;
      up[i] += h;
      down[i] -= h;
      Adaptation scratch = Walker::like(adaptation);
      const QuadratureWalk above = walk(walker.data, makeparameters(c.q, c.r, up), adaptation, &scratch);
      const QuadratureWalk below = walk(walker.data, makeparameters(c.q, c.r, down), adaptation, &scratch);
      const double slope = 2.0 * (above.loglikelihood - below.loglikelihood) / (2.0 * h);
      EXPECT_NEAR(centre.score[i], slope, 1e-5 * std::max(1.0, std::fabs(slope))) << c.name << " " << i;
      for (std::size_t l = 0; l < P; ++l) {
        const double curvature = -(above.score[l] - below.score[l]) / (2.0 * h);
        EXPECT_NEAR(centre.information[l * P + i] + correction[l * P + i], curvature,
                    1e-5 * std::max(1.0, std::fabs(curvature)))
            << c.name << " " << l << " " << i;
      }
    }
  }
}

Marks told;

QuadratureSettings settings(int points, int iterations) {
  QuadratureSettings s;
  s.points = points;
  s.engine.iterations = iterations;
  told.clear();
  told.listen(s.engine);
  return s;
}

QuadratureResult estimate(Study& study, const QuadratureSettings& s, const Parameters& start) {
  return adaptivequadrature(study.data(), s, start, posteriormodes(study, start));
}

TEST(Quadrature, EstimatesOfAnotherAdaptationAndOptimiser) {
  for (const Case& c : cases) {
    Study study = readcase(c);
    const QuadratureResult result =
        estimate(study, settings(c.points, 50), makeparameters(c.q, c.r, reference(c.name, "start")));
    EXPECT_TRUE(result.fit.converged && result.fit.end == EngineEnd::estimated && result.fit.warnings.empty())
        << c.name;
    EXPECT_NEAR(result.fit.marginal, reference(c.name, "maximum")[0], 0.02) << c.name;
    const std::vector<double> found = elements(result.fit.estimates), wanted = reference(c.name, "estimate"),
                              se = reference(c.name, "se");
    const std::size_t P = found.size();
    for (std::size_t i = 0; i < P; ++i) {
      EXPECT_NEAR(found[i], wanted[i], 0.02 * se[i]) << c.name << " " << i;
      EXPECT_NEAR(std::sqrt(result.fit.covariance[i * P + i]), se[i], 0.02 * se[i]) << c.name << " " << i;
    }
    EXPECT_TRUE(result.fit.completepi && result.fit.completebeta);
    EXPECT_NEAR(result.fit.setaupi[0], se[0], 0.02 * se[0]);
    EXPECT_NEAR(std::sqrt(result.fit.vgamma[15]), se[P - 1], 0.02 * se[P - 1]);
  }
}

TEST(Quadrature, TheSameBytesForAnyNumberOfThreads) {
  const auto bytes = [](int threads, std::size_t batchsize) {
    Study study = readcase(cases[1]);
    study.batchsize = batchsize;
    QuadratureSettings s = settings(5, 3);
    s.engine.threads = threads;
    const QuadratureResult result = estimate(study, s, makeparameters(2, 1, reference("bernoulli21", "start")));
    std::vector<double> all = elements(result.fit.estimates);
    all.push_back(result.fit.loglik);
    all.insert(all.end(), result.fit.covariance.begin(), result.fit.covariance.end());
    all.insert(all.end(), result.adaptation.P.begin(), result.adaptation.P.end());
    return all;
  };
  const std::vector<double> one = bytes(1, 5);
  EXPECT_EQ(one, bytes(2, 5));
  EXPECT_EQ(one, bytes(3, 7));
}

// Variances far too small at the start: the information has no inverse without a ridge. A ridge adds up until it has
// one, a tenth of the last goes into the next iteration, and the standard errors are from the information without it.
TEST(Quadrature, RidgeIsRaisedLoweredAndLeftOutOfTheErrors) {
  Parameters start = makeparameters(1, 1, {4.0, 9.0, 0.5, 0.1, 0.1, 0.4});
  Study study = makestudy(bernoulli, 1, 1, drawrecords(1003, 40, 3, 3, start));
  start.taupi[0] *= 0.2;
  start.taubeta[0] *= 0.2;
  const int P = static_cast<int>(start.count());
  Walker walker(study, 5);
  Parameters from = start.copy();
  Adaptation adaptation = posteriormodes(study, start);
  double ridge = 0.0;  // of the iteration's first trial
  for (const int iterations : {1, 2}) {
    const QuadratureResult result = estimate(study, settings(5, iterations), start);
    const std::string letters = told.letters.substr(iterations == 1 ? 0 : told.letters.find('i'));
    const auto raised = std::count(letters.begin(), letters.end(), '*');
    double added = ridge, now = ridge;
    for (std::ptrdiff_t i = 0; i < raised; ++i) added += now = now == 0.0 ? 1.0 : 10.0 * now;
    EXPECT_GE(raised, iterations == 1 ? 2 : 0) << letters;
    EXPECT_EQ(std::count(letters.begin(), letters.end(), '/'), now > 1.0) << letters;
    ridge = now > 1.0 ? now / 10.0 : now;

    Adaptation next = Walker::like(adaptation);
    const QuadratureWalk there = walk(walker.data, from, adaptation, &next);
    dense::Matrix H(P, P), g(P, 1), V(P, P);
    for (std::size_t i = 0; i < at(P * P); ++i) H.cells[i] = there.information[i];
    for (std::size_t i = 0; i < at(P * P); ++i) V.cells[i] = 0.5 * result.fit.covariance[i];
    for (int i = 0; i < P; ++i) g(i, 0) = there.score[at(i)];
    const dense::Matrix one = H * V;
    dense::Matrix ridged = H;
    for (int i = 0; i < P; ++i) {
      for (int l = 0; l < P; ++l) EXPECT_NEAR(one(i, l), i == l, 1e-9);
      ridged(i, i) += added;
    }
    const dense::Matrix step = dense::inverse(ridged) * g;
    const std::vector<double> before = elements(from), after = elements(result.fit.estimates);
    for (int i = 0; i < P; ++i)
      EXPECT_NEAR(after[at(i)] - before[at(i)], (iterations == 1 ? 0.5 : 1.0) * step(i, 0), 1e-9) << letters;
    EXPECT_EQ(result.fit.completepi, V(0, 0) > 0.0);
    EXPECT_EQ(result.fit.completebeta, V(1, 1) > 0.0);
    EXPECT_FALSE(iterations == 1 && result.fit.completepi && result.fit.completebeta);
    from = result.fit.estimates.copy();
    adaptation = std::move(next);
  }
}

// The constrained maximum: another start arrives at it, and off the diagonal there is nothing.
TEST(Quadrature, DiagonalMatrices) {
  const Case& c = cases[2];
  Study study = readcase(c);
  QuadratureSettings s = settings(5, 50);
  s.diagonalpi = s.diagonalbeta = true;
  const QuadratureResult result = estimate(study, s, makeparameters(2, 2, reference(c.name, "start")));
  EXPECT_TRUE(result.fit.converged && result.fit.warnings.empty());
  EXPECT_EQ(result.fit.estimates.taupi[1], 0.0);
  EXPECT_EQ(result.fit.estimates.taubeta[2], 0.0);
  EXPECT_TRUE(result.fit.completepi && result.fit.completebeta);
  EXPECT_EQ(result.fit.setaupi[1], 0.0);
  // No free element can be moved to a higher log-likelihood.
  Walker walker(study, 5);
  const std::vector<double> top = elements(result.fit.estimates);
  const double highest = walk(walker.data, result.fit.estimates, result.adaptation, nullptr).loglikelihood;
  const std::size_t P = top.size();
  for (std::size_t i = 0; i < P; ++i)
    for (const double sign : {-1.0, 1.0}) {
      if (i == 1 || i == 4) continue;
      std::vector<double> moved = top;
      moved[i] += sign * 0.1 * std::sqrt(result.fit.covariance[i * P + i]);
      EXPECT_LT(walk(walker.data, makeparameters(2, 2, moved), result.adaptation, nullptr).loglikelihood, highest) << i;
    }
}

TEST(Quadrature, Failures) {
  const Case& c = cases[0];
  const Parameters start = makeparameters(1, 1, reference(c.name, "start"));
  Study study = readcase(c);
  const auto run = [&](const QuadratureSettings& s, const Parameters& from, const Adaptation& adaptation) {
    return adaptivequadrature(study.data(), s, from, adaptation);
  };
  for (const bool level2 : {true, false}) {
    Parameters many = start.copy();
    (level2 ? many.q : many.r) = 11;
    const QuadratureResult result = run(settings(5, 5), many, posteriormodes(study, start));
    EXPECT_EQ(result.fit.end, EngineEnd::failed);
    EXPECT_EQ(result.fit.failure, EngineFailure::toomanyeffects);
    EXPECT_EQ(told.letters, "bp");
  }
  {
    const QuadratureResult result = run(settings(2, 5), start, posteriormodes(study, start));
    EXPECT_EQ(result.fit.end, EngineEnd::failed);
    EXPECT_EQ(result.fit.failure, EngineFailure::nodes);
    EXPECT_EQ(told.letters, "bp");
  }
  {
    Adaptation bad = posteriormodes(study, start);
    bad.C3[3] = 0.0;
    const QuadratureResult result = run(settings(5, 5), start, bad);
    EXPECT_EQ(result.fit.end, EngineEnd::failed);
    EXPECT_EQ(result.fit.failure, EngineFailure::centre3);
  }
  {
    Adaptation bad = posteriormodes(study, start);
    bad.P[7] = std::nan("");
    const QuadratureResult result = run(settings(5, 5), start, bad);
    EXPECT_EQ(result.fit.end, EngineEnd::failed);
    EXPECT_EQ(result.fit.failure, EngineFailure::centre2);
  }
  {
    // Records that say nothing: an information matrix near 0 with a row of zeros. The ridge is too large at once.
    Study empty = readcase(c);
    for (Level3Records& unit : empty.units)
      for (std::size_t i = 0; i < unit.x.size(); ++i) unit.x[i] = i % 2 == 0 ? 1e-7 : 0.0;
    const QuadratureResult result =
        estimate(empty, settings(5, 5), makeparameters(1, 1, {1e6, 1e6, 0.0, 0.0, 0.0, 0.0}));
    EXPECT_EQ(result.fit.end, EngineEnd::failed);
    EXPECT_EQ(result.fit.failure, EngineFailure::notdefinite);
    EXPECT_EQ(told.letters, "b*p");
  }
  {
    // Outcomes that are more alike across units than chance allows, three of six in each: both taus belong below 0, and
    // all steps lead there.
    std::vector<Record> records = drawrecords(4, 20, 5, 6, makeparameters(1, 1, {1.0, 1.0, 0.0, 0.0, 0.0, 0.0}));
    for (std::size_t i = 0; i < records.size(); ++i) records[i].y = static_cast<double>(i % 2);
    Study even = makestudy(c.outcome, 1, 1, records);
    const std::vector<double> theta{1e-5, 1e-5, 0.2, 0.1, 0.1, 0.1};
    QuadratureSettings s = settings(5, 5);
    s.derivlevel = 1;
    const QuadratureResult result = estimate(even, s, makeparameters(1, 1, theta));
    EXPECT_EQ(result.fit.end, EngineEnd::brokenoff);
    EXPECT_EQ(result.fit.failure, EngineFailure::nostep);
    EXPECT_EQ(told.letters, "bhhhhhhhhp");
    EXPECT_EQ(elements(result.fit.estimates), theta);
  }
}

TEST(Quadrature, Interrupt) {
  Study study = readcase(cases[0]);
  QuadratureSettings s = settings(5, 50);
  s.engine.stopasked = [] { return told.count('i') == 2; };
  const QuadratureResult result = estimate(study, s, makeparameters(1, 1, reference("bernoulli11", "start")));
  EXPECT_EQ(result.fit.iteration, 2);
  EXPECT_TRUE(result.fit.end == EngineEnd::estimated && !result.fit.converged);
  // A limit of no iteration leaves one.
  const QuadratureResult one = estimate(study, settings(5, 0), makeparameters(1, 1, reference("bernoulli11", "start")));
  EXPECT_EQ(one.fit.iteration, 1);
  EXPECT_TRUE(one.fit.end == EngineEnd::estimated && !one.fit.converged);
  ASSERT_EQ(one.fit.warnings.size(), 1U);
  EXPECT_NE(one.fit.warnings[0].find("before they had converged"), std::string::npos);
}

// With four points the iterations rest near a variance of 0 that they began with. At a maximum there, nothing is said.
TEST(Quadrature, VarianceThatIsHeldNearZeroIsSaid) {
  struct Near {
    unsigned seed;
    int points;
    double start;
    bool said;
  };
  for (const Near& one : {Near{3, 4, 1e-4, true}, {4, 3, 1e-3, true}, {3, 7, 0.3, false}, {4, 15, 0.3, false}}) {
    const double tau = one.seed == 4 && one.said ? 0.8 : 0.3;
    Parameters start = makeparameters(1, 1, {tau, 0.5, -0.3, 0.5, 0.4, -0.6});
    Study study = makestudy(bernoulli, 1, 1, drawrecords(one.seed, 12, 5, 6, start));
    start.taupi[0] = one.start;
    const QuadratureResult result = estimate(study, settings(one.points, 100), start);
    EXPECT_TRUE(result.fit.converged) << one.seed;
    EXPECT_EQ(result.fit.estimates.taupi[0] < 0.01, one.said || one.seed == 4) << result.fit.estimates.taupi[0];
    const bool said =
        std::any_of(result.fit.warnings.begin(), result.fit.warnings.end(), [](const std::string& warning) {
          return warning.find("a variance near 0 is not at the maximum") != std::string::npos;
        });
    EXPECT_EQ(said, one.said) << one.seed << " " << one.points;
  }
}

// The best of the iterations so far is told of where it is better around its own centres, too.
TEST(Quadrature, TheBestPointIsIntegratedAgain) {
  struct Best {
    unsigned seed;
    int points;
    double start;
    bool better;
  };
  for (const Best& one : {Best{6, 3, 30.0, false}, {10, 5, 0.01, true}}) {
    Parameters start = makeparameters(1, 1, {1.0, 0.5, -0.3, 0.5, 0.4, -0.6});
    Study study = makestudy(bernoulli, 1, 1, drawrecords(one.seed, 12, 5, 6, start));
    start.taupi[0] = one.start;
    const QuadratureResult result = estimate(study, settings(one.points, 2), start);
    EXPECT_EQ(result.highest > result.fit.loglik, one.better) << one.seed;
    EXPECT_EQ(result.fit.warnings[0].find("not the highest that was seen") != std::string::npos, one.better)
        << one.seed;
  }
}

// Level-3 units of thousands of records: their integrands are far below the smallest double.
TEST(Quadrature, LargeUnits) {
  const Parameters truth = makeparameters(1, 1, {0.5, 0.3, 0.2, 0.1, 0.1, 0.4});
  Study study = makestudy(bernoulli, 1, 1, drawrecords(2, 12, 4, 1500, truth));
  const QuadratureResult result = estimate(study, settings(5, 30), truth);
  EXPECT_TRUE(result.fit.converged);
  EXPECT_NEAR(result.fit.estimates.gamma[3], 0.4, 0.05);
  EXPECT_GT(result.fit.estimates.taubeta[0], 0.05);
}

}  // namespace
