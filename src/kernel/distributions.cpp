#include "kernel/distributions.h"

#include <algorithm>
#include <cmath>

namespace kdr {

namespace {

constexpr double pi = 3.1415926535;
constexpr double halfpi = 1.57079632675;

// 1 + (k0/(k0+1)) x + (k0 (k0+2))/((k0+1)(k0+3)) x^2 + ..., the last factor of a numerator being `last`; 0 <= x <= 1.
double tseries(double x, int k0, int last) {
  double term = 1.0, sum = 1.0;
  for (int k = k0; k <= last; k += 2) {
    term = k * term * x / (k + 1);
    const double next = sum + term;
    if (next == sum) break;  // the terms decrease, so none of those that follow would change the sum either
    sum = next;
  }
  return sum;
}

}  // namespace

double tprob(int df, double t) {
  t = std::fabs(t);
  if (df == 1) return 2.0 * (1.0 - (std::atan(t) / pi + 0.5));
  if (df == 2) return 2.0 * (1.0 - (t / std::sqrt(t * t + 2.0) + 1.0) * 0.5);
  const double theta = std::atan(t / std::sqrt(static_cast<double>(df)));
  const double s = std::sin(theta), c = std::cos(theta);
  if (df % 2 != 0) return std::fabs(1.0 - (c * s * tseries(c * c, 2, df - 3) + theta) / halfpi);
  return std::fabs(1.0 - s * tseries(c * c, 1, df - 3));
}

double tcritical(int df) {
  constexpr double table[] = {12.7062, 4.303, 3.182, 2.776, 2.571};
  if (df > 2500) return 1.96;
  if (df >= 1 && df <= 5) return table[df - 1];
  int point = 1960;
  while (point < 2499 && !(tprob(df, point / 1000.0) < 0.05)) ++point;
  return point / 1000.0;
}

double chisqprob(int df, double x) {
  const double ninedf = 9.0 * df;
  const double z = std::fabs((std::pow(x / df, 0.3333) - 1.0 + 2.0 / ninedf) * std::sqrt(ninedf / 2.0));
  const double q = 1.0 + z * (0.196854 + z * (0.115194 + z * (0.000344 + z * 0.019527)));
  return 1.0 - (1.0 - 0.5 / (q * q * q * q));
}

double factorial(int n) {
  double product = 1.0;
  for (int k = 2; k <= std::min(n, 171); ++k) product *= k;
  return product;
}

double logfactorial(double x) {
  if (x < 65.0) return std::log(factorial(static_cast<int>(std::max(x, 0.0))));
  const double y = x + 1.0;
  const double t = y + 5.5;
  const double w = t - (y + 0.5) * std::log(t);
  const double q = 1.000000000190015 + 76.18009172947146 / (y + 1.0) - 86.50532032941677 / (y + 2.0) +
                   24.01409824083091 / (y + 3.0) - 1.231739572450155 / (y + 4.0) + 0.001208650973866179 / (y + 5.0) -
                   0.000005395239384953 / (y + 6.0);
  return std::log(2.5066282746310007 * q / y) - w;
}

}  // namespace kdr
