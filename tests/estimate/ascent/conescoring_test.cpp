// The ascent over covariance matrices that may be singular at the maximum.
#include "estimate/ascent/conescoring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace {

using namespace kdr;

// -1/2 sum of w (x - a)^2 over the elements: the maximum over the cone is a projection.
ConeProblem quadratic(const std::vector<int>& orders, const std::vector<double>& a, const std::vector<double>& w) {
  ConeProblem problem;
  problem.orders = orders;
  const std::size_t P = a.size();
  problem.free.reset(P);
  for (std::size_t e = 0; e < P; ++e) problem.free[e] = static_cast<int>(e);
  problem.nfree = static_cast<int>(P);
  problem.evaluate = [=](const Array<double>& x) {
    Evaluation there{true, 0.0, Array<double>(P), Array<double>(P * P), Array<double>(P), {}, {}};
    for (std::size_t e = 0; e < P; ++e) {
      there.value -= 0.5 * w[e] * (x[e] - a[e]) * (x[e] - a[e]);
      there.score[e] = -w[e] * (x[e] - a[e]);
      there.information[e * P + e] = there.scale[e] = w[e];
    }
    return there;
  };
  problem.test = problem.evaluate;
  return problem;
}

Array<double> arrayof(const std::vector<double>& values) {
  Array<double> array(values.size());
  std::copy(values.begin(), values.end(), array.begin());
  return array;
}

// The nearest matrix of the cone, off-diagonals counted twice, keeps the positive eigenvalues: worked from the
// spectrum.
std::vector<double> projection(const std::vector<double>& a, int n) {
  std::vector<double> full(square(n)), values(at(n)), Q(square(n)), out;
  for (int i = 0, e = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) full[at(i * n + j)] = full[at(j * n + i)] = a[at(e++)];
  spectrum(at(n), full.data(), values.data(), Q.data());
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (int l = 0; l < n; ++l) sum += std::max(values[at(l)], 0.0) * Q[at(i * n + l)] * Q[at(j * n + l)];
      out.push_back(sum);
    }
  return out;
}

TEST(ConeScoring, ProjectsOntoTheConeFromAnyStart) {
  const std::vector<std::vector<double>> targets = {
      {1, 2, 1},          {-1, 0.3, -2},        {2, 1, 3}, {1e-3, 0.5, -1}, {1, .9, 1, .9, -.9, 1},
      {1, 2, 1, 3, 1, 1}, {-1, 0, -1, 0, 0, -1}};
  for (const std::vector<double>& a : targets) {
    const int n = a.size() == 3 ? 2 : 3;
    std::vector<double> w(a.size(), 2.0);
    for (int i = 0; i < n; ++i) w[packedsize(i) + at(i)] = 1.0;
    const std::vector<double> best = projection(a, n);
    for (const double start : {1.0, 1.0e-6, 0.0})
      for (const double unit : {1.0, 1.0e4}) {  // the last variable in another unit
        std::vector<double> scaled = a, weights = w, from(a.size());
        std::vector<double> in(a.size());
        for (int i = 0, e = 0; i < n; ++i)
          for (int j = 0; j <= i; ++j, ++e) {
            in[at(e)] = (i == n - 1 ? unit : 1.0) * (j == n - 1 ? unit : 1.0);
            scaled[at(e)] *= in[at(e)];
            weights[at(e)] /= in[at(e)] * in[at(e)];
            from[at(e)] = i == j ? start * in[at(e)] : 0.0;
          }
        const ConeResult found = climbcone(quadratic({n}, scaled, weights), {}, arrayof(from));
        EXPECT_EQ(found.end, AscentEnd::converged);
        EXPECT_LT(found.iterations, 40) << a[0] << " " << a[1] << " " << a[2] << " from " << start;
        for (std::size_t e = 0; e < a.size(); ++e)
          EXPECT_NEAR(found.point[e] / in[e], best[e], 1e-5) << e << " from " << start << " unit " << unit;
      }
  }
}

// Restrictions: two equal variances with a covariance beyond them, one variance held, a diagonal matrix, by hand.
TEST(ConeScoring, KeepsRestrictionsAtTheEdge) {
  // v = T11 = T22 and c, targets 1 and 3: on c = v the maximum of -(v - 1)^2 - (c - 3)^2 is v = c = 2.
  ConeProblem equal = quadratic({2}, {1, 3, 1}, {1, 2, 1});
  equal.free = Array<int>(3);
  equal.free[1] = 1;
  equal.nfree = 2;
  ConeResult found = climbcone(equal, {}, arrayof({1, 0, 1}));
  EXPECT_EQ(found.end, AscentEnd::converged);
  EXPECT_EQ(found.lacking[0], 1);
  for (int e = 0; e < 3; ++e) EXPECT_NEAR(found.point[at(e)], 2.0, 1e-6);
  ASSERT_EQ(found.lift.size(), 3U);
  EXPECT_GT(found.point[0] + found.lift[0], std::fabs(found.point[1] + found.lift[1]));
  // Targets -1, 2, -0.5, from 0: only along T = v (1 1; 1 1) does it rise, to the maximum of -(v + 1)^2 / 2 - (v +
  // 0.5)^2 / 2 - (v - 2)^2, 0.625.
  ConeProblem rising = quadratic({2}, {-1, 2, -0.5}, {1, 2, 1});
  rising.free = equal.free.copy();
  rising.nfree = 2;
  found = climbcone(rising, {}, arrayof({0, 0, 0}));
  EXPECT_EQ(found.end, AscentEnd::converged);
  for (int e = 0; e < 3; ++e) EXPECT_NEAR(found.point[at(e)], 0.625, 1e-6);
  // T11 held at 1, targets c = 2 and T22 = 1: on T22 = c^2 the derivative of -(c - 2)^2 - (c^2 - 1)^2 / 2 is
  // 2 (2 - c) - 2 c (c^2 - 1), which is 0 at c^3 = 2.
  ConeProblem held = quadratic({2}, {1, 2, 1}, {1, 2, 1});
  held.free[0] = -1;
  held.free[1] = 0;
  held.free[2] = 1;
  held.nfree = 2;
  found = climbcone(held, {}, arrayof({1, 0, 3}));
  EXPECT_EQ(found.end, AscentEnd::converged);
  EXPECT_NEAR(found.point[1], std::cbrt(2.0), 1e-5);
  EXPECT_NEAR(found.point[2], std::cbrt(4.0), 1e-5);
  EXPECT_EQ(found.point[0], 1.0);
  // Diagonal: the negative target ends at 0, beside a second matrix and an element behind the matrices.
  ConeProblem diagonal = quadratic({2, 1}, {2, 5, -1, -3, 7}, {1, 2, 1, 1, 1});
  diagonal.free[1] = -1;
  for (int e = 2; e < 5; ++e) diagonal.free[at(e)] = e - 1;
  diagonal.nfree = 4;
  found = climbcone(diagonal, {}, arrayof({1, 0, 1, 1, 1}));
  EXPECT_EQ(found.end, AscentEnd::converged);
  EXPECT_EQ(found.lacking, (std::vector<int>{1, 1}));
  const double expected[] = {2, 0, 0, 0, 7};
  for (int e = 0; e < 5; ++e) EXPECT_NEAR(found.point[at(e)], expected[e], 1e-9);
}

}  // namespace
