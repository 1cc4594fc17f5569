#include "estimate/quasi/macrotest.h"

#include <algorithm>
#include <cmath>

#include "kernel/sizes.h"

namespace kdr {

namespace {

// A change that is not a number counts.
bool stands(double now, double previous, double error, double stopmacro) {
  constexpr double least = 1.0e-8;
  const double change = std::fabs(now - previous) / std::max(std::fabs(previous), error);
  return std::max(change, least) <= stopmacro;
}

bool taustands(const Array<double>& now, const Array<double>& previous, const Array<double>& errors, int n,
               double stopmacro) {
  for (int a = 0; a < n; ++a)
    for (int b = 0; b <= a; ++b) {
      const std::size_t i = at(a) * at(n) + at(b);
      if (now[i] != 0.0 && !stands(now[i], previous[i], errors[i], stopmacro)) return false;
    }
  return true;
}

}  // namespace

bool macrotest(const Parameters& now, const Parameters& previous, const Parameters& errors, double stopmacro) {
  for (std::size_t i = 0; i < now.gamma.size(); ++i) {
    const bool measured = previous.gamma[i] != 0.0 || errors.gamma[i] > 0.0;
    if (measured && !stands(now.gamma[i], previous.gamma[i], errors.gamma[i], stopmacro)) return false;
  }
  return taustands(now.taupi, previous.taupi, errors.taupi, now.q, stopmacro) &&
         taustands(now.taubeta, previous.taubeta, errors.taubeta, now.r, stopmacro);
}

bool macrotest(const Parameters& now, const Parameters& previous, double stopmacro) {
  const Parameters none{now.q,
                        now.r,
                        now.g,
                        Array<double>(now.taupi.size()),
                        Array<double>(now.taubeta.size()),
                        Array<double>(now.gamma.size())};
  return macrotest(now, previous, none, stopmacro);
}

double largestchange(const Parameters& now, const Parameters& previous, const Parameters& errors) {
  double largest = 0.0;
  const auto take = [&](const Array<double>& a, const Array<double>& b, const Array<double>& error) {
    for (std::size_t i = 0; i < a.size(); ++i)
      if (error[i] > 0.0) largest = std::max(largest, std::fabs(a[i] - b[i]) / error[i]);
  };
  take(now.gamma, previous.gamma, errors.gamma);
  take(now.taupi, previous.taupi, errors.taupi);
  take(now.taubeta, previous.taubeta, errors.taubeta);
  return largest;
}

}  // namespace kdr
