#include "estimate/quadrature/quadraturenodes.h"

#include <cmath>
#include <cstdint>

#include "kernel/sizes.h"

namespace kdr {

namespace {

// The starting value of root i (from 1) for n points; z is the root before it.
double firstguess(int i, int n, double z, const double* x) {
  if (i == 1) return std::sqrt(2.0 * n + 1.0) - 1.85575 * std::pow(2.0 * n + 1.0, -0.166667);
  if (i == 2) return z - 1.14 * std::pow(n, 0.426) / z;
  if (i == 3) return 1.86 * z - 0.86 * x[0];
  if (i == 4) return 1.91 * z - 0.91 * x[1];
  return 2.0 * z - x[i - 3];
}

}  // namespace

bool gauher(int n, double* x, double* w) {
  constexpr double pim4 = 0.7511255444649425;  // pi^(-1/4)
  constexpr double tolerance = 3.0e-14;
  double z = 0.0, sum = 0.0;  // of the weights
  for (int i = 1; i <= (n + 1) / 2; ++i) {
    z = firstguess(i, n, z, x);
    double slope = 0.0;
    bool found = false;
    const std::int64_t mostpasses = std::int64_t{n} * n;
    for (std::int64_t pass = 0; pass < mostpasses && !found; ++pass) {
      double p1 = pim4, p2 = 0.0;
      for (int j = 1; j <= n; ++j) {
        const double p3 = p2;
        p2 = p1;
        p1 = z * std::sqrt(2.0 / j) * p2 - std::sqrt((j - 1.0) / j) * p3;
      }
      slope = std::sqrt(2.0 * n) * p2;
      const double before = z;
      z = before - p1 / slope;
      if (!std::isfinite(z)) return false;
      found = std::fabs(z - before) < tolerance;
    }
    if (!found || (i > 1 && !(z < x[i - 2]))) return false;
    x[i - 1] = z;
    x[n - i] = -z;
    w[i - 1] = w[n - i] = 2.0 / (slope * slope);
    sum += i - 1 == n - i ? w[i - 1] : 2.0 * w[i - 1];
  }
  // With too many points searches end at roots that are not theirs.
  return std::fabs(sum - std::sqrt(M_PI)) < 1.0e-9;
}

bool makegrid(NodeGrid& grid, int points, int dims) {
  if (points < 1 || dims > mosteffects) return false;
  Array<double> x(at(points)), w(at(points));
  if (!gauher(points, x.data(), w.data())) return false;
  for (int i = 0; i < points; ++i) w[at(i)] *= std::exp(x[at(i)] * x[at(i)]);
  grid.dims = dims;
  grid.count = 1;
  for (int d = 0; d < dims; ++d) grid.count *= points;
  grid.x.reset(at(dims) * at(grid.count));
  grid.weight.reset(at(grid.count));
  for (int m = 0; m < grid.count; ++m) {
    double product = 1.0;
    for (int d = 0, rest = m; d < dims; ++d, rest /= points) {
      grid.x[at(d) * at(grid.count) + at(m)] = x[at(rest % points)];
      product *= w[at(rest % points)];
    }
    grid.weight[at(m)] = product;
  }
  return true;
}

}  // namespace kdr
