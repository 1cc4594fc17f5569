#include "estimate/bootstrap/generator.h"

#include <cmath>

namespace kdr {

namespace {

constexpr std::uint64_t golden = 0x9e3779b97f4a7c15;

std::uint64_t mixed(std::uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
  z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
  return z ^ (z >> 31);
}

}  // namespace

Generator::Generator(std::uint64_t seed, std::uint64_t replicate)
    : state(mixed(mixed(seed + golden) + replicate * golden)) {}

std::uint64_t Generator::bits() { return mixed(state += golden); }

double Generator::uniform() { return (static_cast<double>(bits() >> 11) + 0.5) * 0x1.0p-53; }

// Without a preference: what lies in the last, incomplete, round of n is drawn again.
std::uint64_t Generator::below(std::uint64_t n) {
  const std::uint64_t skip = (0 - n) % n;
  std::uint64_t x = bits();
  while (x < skip) x = bits();
  return x % n;
}

double Generator::normal() {
  if (havespare) {
    havespare = false;
    return spare;
  }
  for (;;) {
    const double x = 2.0 * uniform() - 1.0, y = 2.0 * uniform() - 1.0, s = x * x + y * y;
    if (!(s < 1.0) || s == 0.0) continue;
    const double factor = std::sqrt(-2.0 * std::log(s) / s);
    spare = y * factor;
    havespare = true;
    return x * factor;
  }
}

double Generator::gamma(double shape) {
  if (!(shape > 0.0)) return 0.0;
  if (shape < 1.0) {
    const double boost = std::pow(uniform(), 1.0 / shape);
    return gamma(shape + 1.0) * boost;
  }
  const double d = shape - 1.0 / 3.0, c = 1.0 / std::sqrt(9.0 * d);
  for (;;) {
    const double x = normal(), t = 1.0 + c * x;
    if (!(t > 0.0)) continue;
    const double v = t * t * t;
    if (std::log(uniform()) < 0.5 * x * x + d - d * v + d * std::log(v)) return d * v;
  }
}

// By halves where there are many trials: the median of their uniform numbers is a beta variate, and one of both sides
// of it lies on the same side of p as the median.
double Generator::binomial(double n, double p) {
  constexpr double few = 64.0;
  double successes = 0.0;
  while (n > few) {
    const double i = std::floor(0.5 * n) + 1.0, a = gamma(i), b = gamma(n - i + 1.0), median = a / (a + b);
    if (median <= p) {
      successes += i;
      n -= i;
      p = (p - median) / (1.0 - median);
    } else {
      n = i - 1.0;
      p /= median;
    }
  }
  for (double i = 0.5; i < n; i += 1.0) successes += uniform() < p ? 1.0 : 0.0;
  return successes;
}

double Generator::poisson(double mean) {
  constexpr double small = 30.0;
  double count = 0.0;
  while (mean > small) {
    const double m = std::floor(0.875 * mean), x = gamma(m);
    if (x > mean) return count + binomial(m - 1.0, mean / x);
    count += m;
    mean -= x;
  }
  const double least = std::exp(-mean);
  double product = uniform();
  for (; product > least; product *= uniform()) count += 1.0;
  return count;
}

}  // namespace kdr
