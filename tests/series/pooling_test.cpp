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
  PoolFrame frame{{Array<int>(3), Array<char>(3)}, Array<int>(2), Array<int>(2), Array<int>(2)};
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
  series[1].effects.robust[0] = missingcode;
  series[2].sigma2variance = 0.0;
  const Pooled pooled = pooledof(shape, series);
  EXPECT_FALSE(pooled.errorsknown);
  EXPECT_EQ(pooled.zerovar, 1);
  EXPECT_FALSE(pooled.effects.robust.known);
  EXPECT_TRUE(pooled.effects.model.known);
  EXPECT_TRUE(pooled.popaverage.robust.known);

  const Pooled first = pooledof(shape, std::span(series).first(1));
  EXPECT_TRUE(first.errorsknown && first.effects.robust.known);
}

// Nothing between the sub-runs, or next to nothing: no finite nu, or one beyond every int.
TEST(Pooling, EqualGammasKeepTheCompleteDegreesOfFreedom) {
  std::vector<SubrunRecord> series = records(2);
  series[1].effects.gammahat = series[0].effects.gammahat.copy();
  series[1].effects.gammahat[1] += 1e-7;
  const Pooled pooled = pooledof(shape, series);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(pooled.effects.model.effects.rows[i].df, dfgamma[i]) << i;
}

TEST(Pooling, WithoutScoringNoErrors) {
  const SubrunShape plain{1, 1, 1, false, false};
  std::vector<SubrunRecord> series;
  for (int seed : {1, 2}) series.push_back(numberedrecord(plain, seed));
  const Pooled pooled = pooledof(plain, series);
  EXPECT_FALSE(pooled.errorsknown);
  EXPECT_EQ(pooled.zerovar, 0);
  EXPECT_TRUE(pooled.popaverage.gamma.empty());
}

}  // namespace
}  // namespace kdr
