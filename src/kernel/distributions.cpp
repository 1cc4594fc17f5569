#include "kernel/distributions.h"

#include <algorithm>
#include <boost/math/distributions/chi_squared.hpp>
#include <boost/math/distributions/fisher_f.hpp>
#include <boost/math/distributions/normal.hpp>
#include <boost/math/distributions/students_t.hpp>
#include <cmath>

namespace kdr {

namespace {

// What has no value is not a number and what is too small 0.0; nothing is thrown.
namespace rules = boost::math::policies;
using Quiet = rules::policy<rules::domain_error<rules::ignore_error>, rules::pole_error<rules::ignore_error>,
                            rules::overflow_error<rules::ignore_error>, rules::underflow_error<rules::ignore_error>,
                            rules::denorm_error<rules::ignore_error>, rules::rounding_error<rules::ignore_error>,
                            rules::evaluation_error<rules::ignore_error>,
                            rules::indeterminate_result_error<rules::ignore_error>, rules::promote_double<false>>;

}  // namespace

double tprob(double df, double t) {
  if (std::isinf(t)) return 0.0;
  if (std::isinf(df)) return normalprob(t);
  return 2.0 * cdf(complement(boost::math::students_t_distribution<double, Quiet>(df), std::fabs(t)));
}

double tcritical(int df) {
  constexpr double table[] = {12.7062, 4.303, 3.182, 2.776, 2.571};
  if (df > 2500) return 1.96;
  if (df >= 1 && df <= 5) return table[df - 1];
  if (df < 1) return 1.96;
  const boost::math::students_t_distribution<double, Quiet> distribution(df);
  return std::ceil(1000.0 * quantile(distribution, 0.975)) / 1000.0;
}

double tquantile(double df) {
  if (std::isinf(df)) return quantile(boost::math::normal_distribution<double, Quiet>(), 0.975);
  return quantile(boost::math::students_t_distribution<double, Quiet>(df), 0.975);
}

double chisqprob(double df, double x) {
  if (!(x > 0.0)) return std::isnan(x) ? x : 1.0;
  if (std::isinf(x)) return 0.0;
  return cdf(complement(boost::math::chi_squared_distribution<double, Quiet>(df), x));
}

double fprob(double df1, double df2, double f) {
  if (!(f > 0.0)) return std::isnan(f) ? f : 1.0;
  if (std::isinf(f)) return 0.0;
  return cdf(complement(boost::math::fisher_f_distribution<double, Quiet>(df1, df2), f));
}

double normalprob(double z) { return std::erfc(std::fabs(z) / std::sqrt(2.0)); }

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

double logcombinations(double n, double y) {
  // std::lgamma would write the sign into a global.
  int sign = 0;
  return lgamma_r(n + 1.0, &sign) - lgamma_r(y + 1.0, &sign) - lgamma_r(n - y + 1.0, &sign);
}

}  // namespace kdr
