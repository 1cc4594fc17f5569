// The engine against the model written out on full matrices.
#include <gtest/gtest.h>

#include "estimate/linear/edgesearch.h"
#include "estimate/linear/emstep.h"
#include "estimate/linear/fisher.h"
#include "estimate/linear/fixtau.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/iteration.h"
#include "estimate/linear/posterior.h"
#include "estimate/linear/startingvalues.h"
#include "study.h"

namespace {

using namespace kdr;

// Parameter points from a typical one to nearly singular ones.
struct Point {
  std::vector<double> T, L;
  double s;
  std::vector<double> gamma;
};
const Point points[] = {
    {{1.0, 0.2, 0.2, 0.3}, {0.6, -0.1, -0.1, 0.2}, 1.4, {1, .3, .5, 2, .2, -1}},
    {{4.0, -1.0, -1.0, 2.0}, {0.05, 0.01, 0.01, 0.9}, 0.5, {0, 0, 0, 0, 0, 0}},
    {{1e-6, 0.0, 0.0, 0.3}, {0.6, 0.0, 0.0, 1e-7}, 3.0, {1, 1, 1, 1, 1, 1}},
};

void expectnear(double value, double wanted, double scale, const char* what) {
  EXPECT_NEAR(value, wanted, 1e-9 * std::max(1.0, std::fabs(scale))) << what;
}

class Engine : public testing::TestWithParam<unsigned> {};

TEST_P(Engine, SweepGivesLikelihoodPosteriorAndGeneralisedCrossProduct) {
  study::Study made(GetParam());
  Pass pass;
  study::prepare(pass, made);
  for (const Point& point : points) {
    const dense::Parameters x = study::setparameters(pass, point.T, point.L, point.s, point.gamma);
    const dense::Matrix gamma = study::gammamatrix(pass);
    const dense::Fit fit = dense::evaluate(made.units, x, gamma);

    Array<double> S, Sb;
    double logdetT = 0, logdetL = 0;
    ASSERT_EQ(scaleinverse(pass.est.taupi.data(), 2, x.s, S, logdetT), 0);
    ASSERT_EQ(scaleinverse(pass.est.taubeta.data(), 2, x.s, Sb, logdetL), 0);
    PosteriorSums sums;
    const PosteriorInput input{x.s, pass.est.gammahat.data(), S.data(), Sb.data(), nullptr, true};
    ASSERT_EQ(posteriorsweep(pass, input, sums), PosteriorResult::ok);
    expectnear(loglikelihood(pass, sums, x.s, run.mdm.nunits2 * logdetT, run.mdm.nunits3 * logdetL), fit.loglik,
               fit.loglik, "log-likelihood");
    for (int i = 0; i < 6; ++i)
      for (int j = 0; j < 6; ++j)
        expectnear(sums.A[static_cast<std::size_t>(6 * i + j)] / x.s, fit.A(i, j), fit.A(0, 0), "M'V^-1 M");
    ASSERT_TRUE(glsupdate(pass, sums, pass.est));
    for (int i = 0; i < 6; ++i) expectnear(pass.est.gammahat[static_cast<std::size_t>(i)], fit.gls(i, 0), 1, "gamma");

    // Posterior means and covariances from the joint normal of all random effects and the data.
    dense::Matrix UU(2, 2), PP(2, 2), VV(2, 2);
    double expectedss = 0;  // E |e|^2 given Y
    for (std::size_t k = 0; k < made.units.size(); ++k) {
      const dense::Unit& u = made.units[k];
      const dense::Matrix W = dense::inverse(dense::V(u, x)), r = u.Y - u.M * gamma;
      const dense::Matrix v = x.L * t(u.Z2) * W * r;
      const dense::Matrix Ev = x.L - x.L * t(u.Z2) * W * u.Z2 * x.L;
      for (int a = 0; a < 2; ++a) {
        expectnear(pass.vstar.cells[2 * k + static_cast<std::size_t>(a)], v(a, 0), 1, "v*");
        for (int b = 0; b < 2; ++b)
          expectnear(x.s * pass.dinv.cells[4 * k + static_cast<std::size_t>(2 * a + b)], Ev(a, b), 1, "cov v*");
      }
      VV = VV + v * t(v);
      const dense::Matrix Z1 = u.blockZ1();
      for (int j = 0; j < u.units2; ++j) {
        dense::Matrix Zj(u.Y.rows, 2);
        for (int i = 0; i < u.Y.rows; ++i)
          for (int c = 0; c < 2; ++c) Zj(i, c) = Z1(i, 2 * j + c);
        const dense::Matrix uj = x.T * t(Zj) * W * r;
        UU = UU + uj * t(uj);
        PP = PP + x.T - x.T * t(Zj) * W * Zj * x.T;
      }
      const dense::Matrix e = x.s * W * r;
      expectedss += (t(e) * e)(0, 0) + x.s * u.Y.rows - x.s * x.s * trace(W);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      expectnear(sums.UU[i], UU.cells[i], UU.cells[0], "sum u u'");
      expectnear(x.s * sums.PP[i], PP.cells[i], PP.cells[0], "sum cov u");
      expectnear(sums.VV[i], VV.cells[i], VV.cells[0], "sum v v'");
    }
    expectnear(sums.rss + sums.traceacc, expectedss, expectedss, "E |e|^2");
  }
}

TEST_P(Engine, FisherInformationAndScoreAreTheDenseOnes) {
  study::Study made(GetParam());
  Pass pass;
  study::prepare(pass, made);
  FisherWork fisher;
  makefisher(pass, fisher);
  for (const Point& point : points) {
    const dense::Parameters x = study::setparameters(pass, point.T, point.L, point.s, point.gamma);
    const dense::Fit fit = dense::evaluate(made.units, x, study::gammamatrix(pass));
    Likelihood likelihood{0, 0};
    ASSERT_TRUE(fisherfull(pass, fisher, likelihood, Scoring::steps));
    expectnear(likelihood.current, fit.loglik, fit.loglik, "log-likelihood");
    for (int i = 0; i < 7; ++i) {
      expectnear(fisher.score[static_cast<std::size_t>(i)] / fit.information(i, i),
                 fit.score[static_cast<std::size_t>(i)] / fit.information(i, i), 1, "score");
      for (int j = 0; j < 7; ++j) {
        const double scale = std::sqrt(fit.information(i, i) * fit.information(j, j));
        EXPECT_NEAR(fisher.information[static_cast<std::size_t>(7 * i + j)] / scale, fit.information(i, j) / scale,
                    1e-8)
            << i << ' ' << j;
      }
    }
  }
}

TEST_P(Engine, EveryPlainStepRaisesTheLikelihood) {
  study::Study made(GetParam());
  Pass pass;
  study::prepare(pass, made);
  for (const Point& point : points) {
    study::setparameters(pass, point.T, point.L, point.s, point.gamma);
    Likelihood likelihood{-1e36, -1e36};
    for (int step = 0; step < 40; ++step) {
      EmSums em;
      ASSERT_FALSE(emstep(pass, likelihood, em, nullptr));
      pass.est.sigma2 = (em.traceacc + em.rss) / pass.nunits1;
      EXPECT_GE(likelihood.current, likelihood.previous - 1e-9) << "step " << step;
    }
  }
}

// Iterates a study to the end and returns what the definition says of its estimates.
dense::Fit fitted(const study::Study& made, Pass& pass) {
  run.control.accel = 3;
  run.control.numit = 20000;
  run.control.stopval = 1e-10;
  study::prepare(pass, made);
  study::setparameters(pass, points[0].T, points[0].L, points[0].s, points[0].gamma);
  applyheld(run.model, Tau::pi, pass.est);
  applyheld(run.model, Tau::beta, pass.est);
  IterationState state;
  startiterations(pass, state);
  state.limit = run.control.numit;
  EXPECT_FALSE(iterate(pass, state));
  return dense::evaluate(made.units, study::currentparameters(pass), study::gammamatrix(pass));
}

// `combinations` holds, for each free parameter, the parameters that share its value.
void expectvanishing(const dense::Fit& fit, const std::vector<std::vector<int>>& combinations, int fishertype) {
  for (const std::vector<int>& members : combinations) {
    double score = 0, information = 0;
    for (const int q : members) {
      score += fit.score[static_cast<std::size_t>(q)];
      for (const int r : members) information += fit.information(q, r);
    }
    EXPECT_NEAR(score / std::sqrt(information), 0.0, 1e-3)
        << "fishertype " << fishertype << " parameter " << members[0];
  }
}

// The rule asks for a plain step. Where every step would be an accelerated one, it gets one to confirm its end.
TEST(Iterations, AcceleratedAtEachStepTheyEndAtTheMaximum) {
  study::Study made(1, 24, 6, 7);
  run.control.accel = 1;
  run.control.numit = 200;
  run.control.stopval = 1e-10;
  Pass pass;
  study::prepare(pass, made);
  study::setparameters(pass, points[0].T, points[0].L, points[0].s, points[0].gamma);
  IterationState state;
  startiterations(pass, state);
  state.limit = run.control.numit;
  ASSERT_FALSE(iterate(pass, state));
  EXPECT_EQ(state.ending, Ending::converged);
  EXPECT_LT(state.iteration, 50);
  expectvanishing(dense::evaluate(made.units, study::currentparameters(pass), study::gammamatrix(pass)),
                  {{0}, {1}, {2}, {3}, {4}, {5}, {6}}, 2);
}

// The restricted maximum: a covariance fixed at a value other than 0, two variances made equal, a diagonal matrix. The
// score vanishes in the free directions only.
TEST_P(Engine, TheRestrictedScoreVanishesUnderRestrictions) {
  for (const int fishertype : {0, 2}) {
    {
      study::Study made(GetParam(), 24, 6, 7);
      run.control.fishertype = static_cast<FisherType>(fishertype);
      run.model.restrictions.haveesttau2 = true;
      run.model.restrictions.esttau2.reset(4);
      run.model.restrictions.esttau2.fill(absent);
      run.model.restrictions.esttau2[1] = run.model.restrictions.esttau2[2] = 0.15;
      run.model.restrictions.diagtaubeta = true;
      Pass pass;
      expectvanishing(fitted(made, pass), {{0}, {2}, {3}, {5}, {6}}, fishertype);
      EXPECT_EQ(pass.est.taupi[1], 0.15);
      EXPECT_EQ(pass.est.taubeta[1], 0.0);
    }
    {
      study::Study made(GetParam(), 24, 6, 7);
      run.control.fishertype = static_cast<FisherType>(fishertype);
      run.model.restrictions.havecontau2 = true;
      run.model.restrictions.contau2.reset(3);
      run.model.restrictions.contau2[0] = 1;
      run.model.restrictions.contau2[2] = -1;
      Pass pass;
      expectvanishing(fitted(made, pass), {{0, 2}, {1}, {3}, {4}, {5}, {6}}, fishertype);
      EXPECT_EQ(pass.est.taupi[0], pass.est.taupi[3]);
    }
  }
}

// The heterogeneous stage: each level-3 unit's taupi becomes the mean posterior moment of its own level-2 units, and
// the likelihood with a taupi per unit rises.
TEST_P(Engine, HeterogeneousStepsGiveEachUnitItsOwnMoment) {
  study::Study made(GetParam());
  Pass pass;
  study::prepare(pass, made);
  const dense::Parameters start = study::setparameters(pass, points[0].T, points[0].L, points[0].s, points[0].gamma);
  const dense::Matrix gamma = study::gammamatrix(pass);
  const std::size_t units = made.units.size();
  UnitTable<double> table;
  table.reset(units, 4);
  Array<double>& T = table.cells;
  for (std::size_t i = 0; i < T.size(); ++i) T[i] = points[0].T[i % 4] * (1.0 + 0.1 * static_cast<double>(i / 4));
  std::vector<dense::Parameters> own(units, start);
  double loglik = 0;
  for (std::size_t k = 0; k < units; ++k) {
    for (std::size_t i = 0; i < 4; ++i) own[k].T.cells[i] = T[4 * k + i];
    loglik += dense::evaluate({made.units[k]}, own[k], gamma).loglik;
  }
  Likelihood likelihood{-1e36, -1e36};
  EmSums em;
  ASSERT_FALSE(emstep(pass, likelihood, em, &table));
  expectnear(likelihood.current, loglik, loglik, "log-likelihood");
  for (std::size_t k = 0; k < units; ++k) {
    const dense::Unit& u = made.units[k];
    const dense::Matrix W = dense::inverse(dense::V(u, own[k])), r = u.Y - u.M * gamma, Z1 = u.blockZ1();
    dense::Matrix sum(2, 2);
    for (int j = 0; j < u.units2; ++j) {
      dense::Matrix Zj(u.Y.rows, 2);
      for (int i = 0; i < u.Y.rows; ++i)
        for (int c = 0; c < 2; ++c) Zj(i, c) = Z1(i, 2 * j + c);
      const dense::Matrix uj = own[k].T * t(Zj) * W * r;
      sum = sum + uj * t(uj) + own[k].T - own[k].T * t(Zj) * W * Zj * own[k].T;
    }
    for (std::size_t i = 0; i < 4; ++i) expectnear(T[4 * k + i], sum.cells[i] / u.units2, 1, "taupi of a unit");
  }
  for (int step = 0; step < 30; ++step) {
    pass.est.sigma2 = (em.traceacc + em.rss) / pass.nunits1;
    ASSERT_FALSE(emstep(pass, likelihood, em, &table));
    EXPECT_GE(likelihood.current, likelihood.previous - 1e-9) << "step " << step;
  }
}

// What an iteration cannot go on with is a failure by number.
TEST(Step, UnusableCovariancesAreFailures) {
  struct Case {
    std::vector<double> T, L;
    double s;
    int row;
    const char* argument;
  };
  const Case cases[] = {
      {{1, 1, 1, 1}, {1, 0, 0, 1}, 1, 12, "tau(pi)"}, {{1, 0, 0, 1}, {1, 2, 2, 1}, 1, 12, "tau(beta)"},
      {{1, 0, 0, 1}, {-1, 0, 0, -1}, 1, 15, ""},      {{-1, 0, 0, -1}, {1, 0, 0, 1}, 1, 15, ""},
      {{1, 0, 0, 1}, {1, 0, 0, 1}, -1, 15, ""},
  };
  for (const Case& bad : cases) {
    study::Study made(1);
    Pass pass;
    study::prepare(pass, made);
    study::setparameters(pass, bad.T, bad.L, bad.s, points[0].gamma);
    Likelihood likelihood{0, 0};
    EmSums em;
    const Failure failure = emstep(pass, likelihood, em, nullptr);
    EXPECT_EQ(failure.row, bad.row);
    EXPECT_EQ(failure.argument, bad.argument);
  }
}

// Looking at a point moves nothing: standard errors by either information, and a search, whose gain comes with its
// point.
TEST(Point, AskingMovesNothing) {
  for (const int fishertype : {1, 2}) {
    study::Study made(5, 24, 6, 7);
    run.control.fishertype = static_cast<FisherType>(fishertype);
    Pass pass;
    study::prepare(pass, made);
    study::setparameters(pass, points[0].T, points[0].L, points[0].s, points[0].gamma);
    const Estimates before = pass.est.copy();
    FisherWork fisher;
    makefisher(pass, fisher);
    EXPECT_TRUE(tauerrors(pass, fisher).known);
    const EdgeSearch found = searchedge(pass, pass.est, 0.0);
    EXPECT_FALSE(found.failed);
    EXPECT_GT(found.gain, 0.0);
    const std::pair<const Array<double>*, const Array<double>*> fields[] = {{&pass.est.gammahat, &before.gammahat},
                                                                            {&pass.est.vgamma, &before.vgamma},
                                                                            {&pass.est.taupi, &before.taupi},
                                                                            {&pass.est.taubeta, &before.taubeta}};
    for (const auto& [now, then] : fields) EXPECT_TRUE(std::equal(now->begin(), now->end(), then->begin()));
    EXPECT_EQ(pass.est.sigma2, before.sigma2);
    pass.est = found.est.copy();
    EXPECT_LT(searchedge(pass, pass.est, 0.0).gain, 1e-3) << "the maximum has none above it";
  }
}

// A store that does not fit its budget goes through scratch files, in windows down to a single level-3 unit, and
// changes no bit of the result.
TEST(Store, FilesGiveTheSameBitsAsMemory) {
  std::vector<double> inmemory;
  for (const std::size_t budget : {std::size_t{1} << 30, std::size_t{0}})
    for (const std::size_t window : {std::size_t{1} << 20, std::size_t{2000}, std::size_t{1}}) {
      study::Study made(3, 20);
      made.analysis.store = {false, budget, window};
      Pass pass;
      study::prepare(pass, made);
      EXPECT_EQ(pass.store.hot.windowrecords() > 1000000, budget != 0);
      study::setparameters(pass, points[0].T, points[0].L, points[0].s, points[0].gamma);
      IterationState state;
      startiterations(pass, state);
      state.limit = 12;
      run.control.numit = 12;
      ASSERT_FALSE(iterate(pass, state));
      std::vector<double> result(pass.est.gammahat.begin(), pass.est.gammahat.end());
      result.insert(result.end(), pass.est.taupi.begin(), pass.est.taupi.end());
      result.push_back(pass.est.sigma2);
      result.push_back(reliabilities(pass).level3[1]);
      if (inmemory.empty()) inmemory = result;
      EXPECT_EQ(result, inmemory);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Engine, testing::Values(1U, 2U, 3U));

}  // namespace
