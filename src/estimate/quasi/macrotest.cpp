#include "estimate/quasi/macrotest.h"

#include <algorithm>
#include <cmath>

#include "kernel/sizes.h"

namespace kdr {

namespace {

// A change that is not a number counts.
bool stands(double now, double previous, double stopmacro) {
  constexpr double least = 1.0e-8;
  const double change = std::fabs((now - previous) / previous);
  return std::max(change, least) <= stopmacro;
}

bool taustands(const Array<double>& now, const Array<double>& previous, int n, double stopmacro) {
  for (int a = 0; a < n; ++a)
    for (int b = 0; b <= a; ++b) {
      const std::size_t i = at(a) * at(n) + at(b);
      if (now[i] != 0.0 && !stands(now[i], previous[i], stopmacro)) return false;
    }
  return true;
}

}  // namespace

bool macrotest(const Parameters& now, const Parameters& previous, double stopmacro) {
  for (std::size_t i = 0; i < now.gamma.size(); ++i)
    if (previous.gamma[i] != 0.0 && !stands(now.gamma[i], previous.gamma[i], stopmacro)) return false;
  return taustands(now.taupi, previous.taupi, now.q, stopmacro) &&
         taustands(now.taubeta, previous.taubeta, now.r, stopmacro);
}

}  // namespace kdr
