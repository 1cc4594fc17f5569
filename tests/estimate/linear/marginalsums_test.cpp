// Value, score, informations and the parts of small-sample covariances against full matrices written from their
// definitions.
#include <gtest/gtest.h>

#include <cstring>
#include <numbers>
#include <random>

#include "estimate/linear/marginalderivatives.h"
#include "estimate/linear/marginalloops.h"
#include "kernel/sizes.h"
#include "study.h"

namespace {

using namespace kdr;
using dense::inverse;
using dense::Matrix;
using dense::t;
using dense::trace;

struct Dense {
  static constexpr int NT = 7, g = 6;
  double loglik = 0, restricted = 0;
  Matrix Phi, gamma;
  double tr[NT] = {}, T[NT][NT] = {}, Prr[NT] = {}, Qrr[NT][NT] = {};
  Matrix P[NT], Pr[NT], Q[NT][NT];

  Dense(const std::vector<dense::Unit>& units, const dense::Parameters& x) : Phi(g, g), gamma(g, 1) {
    Matrix A(g, g), c(g, 1);
    double logdet = 0, n = 0;
    for (const dense::Unit& u : units) {
      double d = 0;
      const Matrix Vi = inverse(dense::V(u, x), &d);
      A = A + t(u.M) * Vi * u.M;
      c = c + t(u.M) * Vi * u.Y;
      logdet += d;
      n += u.Y.rows;
    }
    double logdetA = 0, rss = 0;
    Phi = inverse(A, &logdetA);
    gamma = Phi * c;
    for (int i = 0; i < NT; ++i) {
      P[i] = Matrix(g, g);
      Pr[i] = Matrix(g, 1);
      for (int j = 0; j < NT; ++j) Q[i][j] = Matrix(g, g);
    }
    for (const dense::Unit& u : units) {
      const Matrix Vi = inverse(dense::V(u, x)), r = u.Y - u.M * gamma, VM = Vi * u.M, Vr = Vi * r;
      rss += (t(r) * Vr)(0, 0);
      std::vector<Matrix> V;
      for (int i = 0; i < NT; ++i) V.push_back(dense::dV(u, x, i));
      for (std::size_t i = 0; i < NT; ++i) {
        const Matrix Wi = Vi * V[i];
        tr[i] += trace(Wi);
        P[i] = P[i] + t(VM) * V[i] * VM;
        Pr[i] = Pr[i] + t(VM) * V[i] * Vr;
        Prr[i] += (t(Vr) * V[i] * Vr)(0, 0);
        for (std::size_t j = 0; j < NT; ++j) {
          T[i][j] += trace(Wi * Vi * V[j]);
          Q[i][j] = Q[i][j] + t(VM) * V[i] * Vi * V[j] * VM;
          Qrr[i][j] += (t(Vr) * V[i] * Vi * V[j] * Vr)(0, 0);
        }
      }
    }
    const double log2pi = std::log(2 * std::numbers::pi);
    loglik = -0.5 * (n * log2pi + logdet + rss);
    restricted = loglik + 0.5 * g * log2pi - 0.5 * logdetA;
  }
};

void expectnear(double value, double wanted, double scale, const char* what) {
  EXPECT_NEAR(value, wanted, 1e-9 * std::max(1.0, std::fabs(scale))) << what;
}

// Ordinary, of rank 1 at both levels, and without any variance of one level.
const struct {
  std::vector<double> T, L;
  double s;
} points[] = {{{1.0, 0.2, 0.2, 0.3}, {0.6, -0.1, -0.1, 0.2}, 1.4},
              {{4.0, -2.0, -2.0, 1.0}, {0.25, 0.5, 0.5, 1.0}, 0.5},
              {{0, 0, 0, 0.3}, {0, 0, 0, 0}, 3.0}};

class MarginalSumsOf : public testing::TestWithParam<unsigned> {};

TEST_P(MarginalSumsOf, UnitsAreThoseOfFullMatrices) {
  study::Study made(GetParam());
  Pass pass;
  study::prepare(pass, made);
  MarginalSums sums;
  ASSERT_FALSE(makemarginalsums(pass, sums));
  for (const auto& point : points) {
    const dense::Parameters x = study::setparameters(pass, point.T, point.L, point.s, {1, .3, .5, 2, .2, -1});
    const Dense want(made.units, x);
    const MarginalValue value = marginalvalue(sums, pass.est);
    ASSERT_TRUE(value.known);
    expectnear(value.loglik, want.loglik, want.loglik, "log-likelihood");
    expectnear(value.restricted, want.restricted, want.restricted, "restricted log-likelihood");
    for (std::size_t i = 0; i < 6; ++i) {
      expectnear(value.gamma[i], want.gamma(static_cast<int>(i), 0), 1, "gamma");
      for (std::size_t j = 0; j < 6; ++j)
        expectnear(value.covariance[6 * i + j], want.Phi(static_cast<int>(i), static_cast<int>(j)), 1, "covariance");
    }
    for (const Criterion criterion : {Criterion::full, Criterion::restricted}) {
      const bool restricted = criterion == Criterion::restricted;
      const MarginalDerivatives all = marginalderivatives(sums, pass.est, value, criterion, Derivatives::all);
      const MarginalStep away = marginalstep(sums, pass.est, criterion);
      Estimates best = pass.est.copy();
      best.gammahat = value.gamma.copy();
      const MarginalStep step = marginalstep(sums, best, criterion);
      const MarginalDerivatives average = marginalderivatives(sums, pass.est, value, criterion, Derivatives::step);
      for (int i = 0; i < Dense::NT; ++i) {
        const double score = -0.5 * (want.tr[i] - (restricted ? trace(want.Phi * want.P[i]) : 0) - want.Prr[i]);
        expectnear(all.score[at(i)], score, want.tr[i], "score");
        expectnear(away.score[at(i)], score, want.tr[i], "score from other fixed effects");
        expectnear(step.score[at(i)], score, want.tr[i], "score by one sweep");
        for (int j = 0; j < Dense::NT; ++j) {
          const std::size_t ij = at(i * Dense::NT + j);
          const double average0 = 0.5 * (want.Qrr[i][j] - (t(want.Pr[i]) * want.Phi * want.Pr[j])(0, 0));
          const double expected =
              0.5 * (want.T[i][j] + (restricted ? trace(want.Phi * want.P[i] * want.Phi * want.P[j]) -
                                                      2 * trace(want.Phi * want.Q[i][j])
                                                : 0));
          expectnear(all.average[ij], average0, want.T[i][j], "average information");
          expectnear(average.average[ij], average0, want.T[i][j], "average information alone");
          expectnear(step.average[ij], average0, want.T[i][j], "average information by one sweep");
          expectnear(all.expected[ij], expected, want.T[i][j], "expected information");
          if (j > i) continue;
          const int pair = i * (i + 1) / 2 + j;
          const Matrix both = want.Q[i][j] + want.Q[j][i];
          for (int a = 0; a < 6; ++a)
            for (int b = 0; b < 6; ++b) {
              expectnear(all.Q.row(pair)[a * 6 + b] + all.Q.row(pair)[b * 6 + a], both(a, b), both(a, a), "Q");
              if (j == 0) expectnear(all.P.row(i)[a * 6 + b], want.P[i](a, b), want.P[i](a, a), "P");
            }
        }
      }
    }
  }
}

// Both visits to seven units with p effects, of which those behind the second have no data and no variance.
struct Visits {
  std::vector<double> G, t, P, Q, Y;
  double logdeterminant, traceR;
};
Visits visits(const MarginalLoops& loops, int p) {
  constexpr int units = 7, C = 3, b = 1;
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  const std::size_t np = packedsize(p), stride = np + 2 * at(C * p);
  std::vector<double> records(units * stride), T(square(p)), work(marginalwork(p, b, C)),
      kept(marginalkept(p, C, units));
  for (std::size_t j = 0; j < units; ++j) {
    double* const record = records.data() + j * stride;
    const double x = normal(random), y = normal(random), n = 4 + std::fabs(normal(random));
    record[0] = n;
    record[1] = x;
    record[2] = n + y * y;
    for (std::size_t part = 0; part < 2; ++part)
      for (int c = 0; c < C; ++c)
        for (int i = 0; i < 2; ++i) record[np + (part * C + at(c)) * at(p) + at(i)] = normal(random);
  }
  T[0] = 1.5;
  T[1] = T[at(p)] = 0.4;
  T[at(p) + 1] = 0.7;
  const double theta[] = {0.3, -0.2}, N[] = {0.6}, NC2N[] = {0.1}, TF[] = {0.2, 0.5, -0.1}, TF2[] = {0.1, -0.3, 0.2};
  const MarginalRecords all{records.data(), stride, units, p, b, C, work.data()};
  Visits made;
  made.G.resize(3 * C * C);
  double* const G = made.G.data();
  MarginalFirst first{theta, T.data(), 0.8, 3, false, G, G + C * C, G + 2 * C * C, 0.0, 0.0, 0.0, kept.data()};
  loops.first(all, first);
  made.logdeterminant = first.logdeterminant;
  made.traceR = first.traceR;
  const std::size_t pairs = packedsize(static_cast<int>(np));
  std::vector<double> Qs(np), Lambda(np), none(pairs);
  made.t.resize(np);
  made.P.resize(np * C * C);
  made.Q.resize(pairs);
  made.Y.resize(np * C);
  loops.second(all, {N, NC2N, TF, TF2, false, kept.data(), made.t.data(), made.P.data(), Qs.data(), made.Q.data(),
                     made.Y.data(), Lambda.data(), none.data(), none.data()});
  return made;
}

TEST(MarginalLoops, FourUnitsSideBySideAreUnitsOneByOne) {
  const Visits lanes = visits(marginalloops(), 2), single = visits(marginalloops(), 3);  // order 3 goes one by one
  const auto near = [](const std::vector<double>& a, const std::vector<double>& b, const char* what) {
    for (std::size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], 1e-12 * std::max(1.0, std::fabs(a[i]))) << what;
  };
  near(lanes.G, single.G, "G");
  near(lanes.t, single.t, "t");
  near(lanes.P, single.P, "P");
  near(lanes.Q, single.Q, "Q");
  near(lanes.Y, single.Y, "Y");
  EXPECT_NEAR(lanes.logdeterminant, single.logdeterminant, 1e-12);
  EXPECT_NEAR(lanes.traceR + 7.0, single.traceR, 1e-12);
}

TEST(MarginalLoops, EverySetOfInstructionsGivesTheSameBits) {
  for (const int p : {2, 3}) {
    const Visits one = visits(baseline::marginalloopset, p), other = visits(marginalloops(), p);
    EXPECT_EQ(std::memcmp(one.G.data(), other.G.data(), one.G.size() * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(one.P.data(), other.P.data(), one.P.size() * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(one.Q.data(), other.Q.data(), one.Q.size() * sizeof(double)), 0);
    EXPECT_EQ(one.logdeterminant, other.logdeterminant);
  }
}

INSTANTIATE_TEST_SUITE_P(Studies, MarginalSumsOf, testing::Values(1u, 7u, 23u));

}  // namespace
