#include "estimate/linear/unitloops.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "kernel/sizes.h"

namespace {

using namespace kdr;

// Everything that the three walks write, one number behind the other, for made records of `units` units.
std::vector<double> written(const UnitLoops& loops, int p, int b, int nb, int units) {
  const auto triangle = [](int n) { return at(n * (n + 1) / 2); };
  const std::size_t atZ1Y = triangle(p), atBZ1 = atZ1Y + at(p), atCinv = atBZ1 + at(nb * p),
                    atustar = atCinv + triangle(p), stride = atustar + at(p);
  std::mt19937 rng(7);
  std::normal_distribution<double> normal;
  std::vector<double> hot(stride * at(units)), S(triangle(p)), work(loopwork(p, b, nb));
  for (double& x : hot) x = normal(rng);
  for (int j = 0; j < units; ++j)
    for (int i = 0; i < p; ++i) hot[at(j) * stride + triangle(i + 1) - 1] = 10.0 + i;  // positive definite
  for (int i = 0; i < p; ++i) S[triangle(i + 1) - 1] = 2.0;
  const UnitRecords records{hot.data(), stride, atZ1Y, atBZ1, atCinv, atustar, units, p, b, nb, work.data()};

  std::vector<double> HB(at(nb * nb)), HY(at(nb)), RR(at(b * p * b * p)), Cinv(at(p * p)), UU(at(p * p));
  std::vector<double> TT(at(p * p * p * p)), FF(at(p * p)), thetastar(at(nb)), Ti(at(p * p)), E(at(b * b));
  for (std::vector<double>* m : {&thetastar, &Ti, &E})
    for (double& x : *m) x = normal(rng);
  FirstVisit first{S.data(), HB.data(), HY.data(), RR.data(), Cinv.data(), 0.0, 0.0};
  EXPECT_TRUE(loops.first(records, first));
  const double ua = loops.means(records, thetastar.data(), true, UU.data());
  loops.scoring(records, {Ti.data(), E.data(), 1.3, 0.9, TT.data(), FF.data()});
  std::vector<double> all{first.YCY, first.logdetC, ua};
  for (const std::vector<double>* m : {&hot, &HB, &HY, &RR, &Cinv, &UU, &TT, &FF})
    all.insert(all.end(), m->begin(), m->end());
  return all;
}

// The report of a run must not depend on the machine.
TEST(UnitLoops, EverySetOfInstructionsGivesTheSameBits) {
  if (&unitloops() == &baseline::loops) GTEST_SKIP() << "this machine has no other set";
  const struct {
    int p, b, nb;
  } orders[] = {{1, 1, 1}, {1, 2, 4}, {2, 1, 3}, {2, 2, 2}, {3, 3, 3}, {2, 5, 5}, {3, 2, 6}, {4, 4, 7}};
  for (const auto& [p, b, nb] : orders)
    for (const int units : {0, 3, 4, 11})
      EXPECT_EQ(written(baseline::loops, p, b, nb, units), written(unitloops(), p, b, nb, units)) << p << b << nb;
}

// Determinants whose product leaves the range of a double many times over, as of many large units.
TEST(UnitLoops, LogDeterminantsOfAnySize) {
  for (const double size : {1e-200, 1e-130, 1e100, 1e145, 1e300}) {
    constexpr int units = 41;
    std::vector<double> hot(5 * units, size), sums(4), work(loopwork(1, 1, 1));
    const double S = 0.0;
    FirstVisit first{&S, &sums[0], &sums[1], &sums[2], &sums[3], 0.0, 0.0};
    ASSERT_TRUE(unitloops().first({hot.data(), 5, 1, 2, 3, 4, units, 1, 1, 1, work.data()}, first));
    EXPECT_NEAR(first.logdetC, units * std::log(size), 1e-9);
  }
}

}  // namespace
