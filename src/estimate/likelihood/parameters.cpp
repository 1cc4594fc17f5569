#include "estimate/likelihood/parameters.h"

#include <algorithm>
#include <cmath>

#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

std::size_t Parameters::ntaupi() const { return packedsize(q); }
std::size_t Parameters::ntaubeta() const { return packedsize(r); }
std::size_t Parameters::count() const { return packedsize(q) + packedsize(r) + at(g); }
Parameters Parameters::copy() const { return {q, r, g, taupi.copy(), taubeta.copy(), gamma.copy()}; }

void addstep(Parameters& parameters, const double* delta) {
  addtriangle(parameters.taupi.data(), parameters.q, delta, 1.0);
  addtriangle(parameters.taubeta.data(), parameters.r, delta + parameters.ntaupi(), 1.0);
  const double* step = delta + parameters.ntaupi() + parameters.ntaubeta();
  for (std::size_t i = 0; i < parameters.gamma.size(); ++i) parameters.gamma[i] += step[i];
}

void addduplicated(double* dest, const double* R, int n) {
  for (std::ptrdiff_t a = 0; a < n; ++a)
    for (std::ptrdiff_t b = 0; b <= a; ++b) *dest++ += a == b ? R[a * n + a] : R[a * n + b] + R[b * n + a];
}

Array<double> diagonalblock(const double* V, std::size_t P, std::size_t first, std::size_t n, double scale) {
  Array<double> block(n * n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l < n; ++l) block[i * n + l] = scale * V[(first + i) * P + first + l];
  return block;
}

int standarderrormatrix(const double* V, std::size_t P, std::size_t first, int n, double scale, Array<double>& matrix) {
  const auto order = static_cast<std::size_t>(n);
  matrix.reset(order * order);
  int bad = 0;
  for (std::size_t a = 0; a < order; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++first) {
      const double variance = V[first * P + first];
      const bool usable = variance > 0.0;
      bad += !usable;
      matrix[a * order + b] = matrix[b * order + a] = usable ? std::sqrt(scale * variance) : 0.0;
    }
  return bad;
}

bool Ridge::addto(double* H, std::size_t P) const {
  constexpr double largest = 1.0e20, largestratio = 1.0e6;
  if (value == -1.0) return true;
  double m = H[0];
  for (std::size_t i = 1; i < P; ++i) m = std::max(m, H[i * P + i]);
  if (value > largest || value / m > largestratio) return false;
  for (std::size_t i = 0; i < P; ++i) H[i * P + i] += value;
  return true;
}

void Ridge::raise(double first) {
  if (value < 0.0) value = first;
  value *= 10.0;
}

bool trialstep(Parameters& parameters, double* delta, const std::function<bool(Parameters&)>& usable,
               const std::function<void()>& between) {
  constexpr int trials = 8;
  const Parameters kept = parameters.copy();
  for (int trial = 1; trial <= trials; ++trial) {
    addstep(parameters, delta);
    if (usable(parameters)) return trial < trials;
    parameters = kept.copy();
    for (std::size_t i = 0; i < parameters.count(); ++i) delta[i] *= 0.5;
    if (between) between();
  }
  return false;
}

}  // namespace kdr
