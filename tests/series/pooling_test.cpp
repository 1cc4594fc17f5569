// What an average does without; the averages themselves are held against single runs by the end-to-end tests of series.
#include "series/pooling.h"

#include <gtest/gtest.h>

#include <vector>

#include "core/constants.h"
#include "records.h"

namespace kdr {
namespace {

constexpr SubrunShape shape{2, 2, 3, true, true};

const int dfgamma[] = {27, 30, 400};

Pooled pooledof(const SubrunShape& kind, std::span<const SubrunRecord> series) {
  PoolFrame frame;
  frame.degrees.df.reset(3);
  frame.degrees.rough.reset(3);
  for (Array<int>* counts : {&frame.nterms2, &frame.nfixedterms2, &frame.nterms3}) counts->reset(2);
  for (std::size_t i = 0; i < 3; ++i) frame.degrees.df[i] = dfgamma[i];
  return pool(kind, series, frame, {});
}

// The first of a made series.
std::vector<SubrunRecord> records(int count) {
  std::vector<SubrunRecord> made;
  for (int seed = 1; seed <= count; ++seed) made.push_back(numberedrecord(shape, seed));
  return made;
}

// What one sub-run lacks, no average has.
TEST(Pooling, OneSubrunWithoutErrorsOrRobustMatrix) {
  std::vector<SubrunRecord> series = records(4);
  series[1].effects.robust[0] = absent;
  series[2].sigma2variance = 0.0;
  const Pooled pooled = pooledof(shape, series);
  EXPECT_FALSE(pooled.errorsknown);
  EXPECT_EQ(pooled.zerovar, 1);
  EXPECT_FALSE(pooled.effects.robust.known);
  EXPECT_TRUE(pooled.effects.model.known);
  EXPECT_TRUE(pooled.popaverage.robust.known);

  const Pooled first = pooledof(shape, std::span(series).first(1));
  EXPECT_TRUE(first.errorsknown && first.effects.robust.known);

  const SubrunShape plain{1, 1, 1, false, false};  // without scoring
  series.clear();
  for (int seed : {1, 2}) series.push_back(numberedrecord(plain, seed));
  const Pooled unscored = pooledof(plain, series);
  EXPECT_TRUE(!unscored.errorsknown && unscored.zerovar == 0 && unscored.popaverage.gamma.empty());
}

// Nothing between the sub-runs, or next to nothing: no finite nu, or one beyond every int.
TEST(Pooling, EqualGammasKeepTheCompleteDegreesOfFreedom) {
  std::vector<SubrunRecord> series = records(2);
  series[1].effects.gammahat = series[0].effects.gammahat.copy();
  series[1].effects.gammahat[1] += 1e-7;
  const Pooled pooled = pooledof(shape, series);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(pooled.effects.model.effects.rows[i].df, dfgamma[i]) << i;
}

// By tests/reference/pooledtests.py: sub-runs of their own sigma^2, chi-squares alone.
TEST(Pooling, WithinVarianceSharesAndChiSquares) {
  const SubrunShape plain{1, 1, 1, false, false};
  const double sigma2[] = {2.0, 1.0, 4.0, 3.0}, vgamma[] = {0.1, 0.3, 0.05, 0.1}, gamma[] = {1.0, 1.2, 0.9, 1.3},
               chisq[] = {20.5, 30.25, 17.0, 22.0};
  std::vector<SubrunRecord> series;
  for (int m = 0; m < 4; ++m) {
    SubrunRecord& record = series.emplace_back(emptyrecord(plain));
    record.sigma2 = sigma2[m];
    record.effects.vgamma[0] = record.effects.robust[0] = vgamma[m];
    record.effects.gammahat[0] = gamma[m];
    record.chisq3[0] = chisq[m];
    record.testunits3 = 12;
  }
  const Pooled pooled = pooledof(plain, series);
  const EffectTable& effects = pooled.effects.model.effects;
  // U = (0.2 + 0.3 + 0.2 + 0.3) / 4 = 0.25, B = 5/4 (0.01 + 0.01 + 0.04 + 0.04) / 3 = 1/24, r = 1/6, nu = 3 49 = 147
  EXPECT_NEAR(pooled.effects.model.covariance[0], 0.25 + 1.0 / 24.0, 1e-12);
  EXPECT_EQ(effects.rows[0].df, 27);
  EXPECT_NEAR(effects.shares[0].fraction, (1.0 / 6.0 + 2.0 / 150.0) / (7.0 / 6.0), 1e-12);
  EXPECT_NEAR(effects.shares[0].efficiency, 1.0 / (1.0 + effects.shares[0].fraction / 4.0), 1e-12);
  const ChiSquareTest& test = pooled.tests.level3[0].chisquare;
  EXPECT_EQ(test.df, 12);
  EXPECT_NEAR(test.statistic, 9.936826857402504, 1e-9);
  EXPECT_NEAR(test.df2, 5.362509862604115, 1e-9);
  EXPECT_NEAR(test.p, 0.6356861394929765, 1e-9);
}

}  // namespace
}  // namespace kdr
