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

Array<double> diagonalblock(const double* V, std::size_t P, std::size_t first, std::size_t n) {
  Array<double> block(n * n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t l = 0; l < n; ++l) block[i * n + l] = V[(first + i) * P + first + l];
  return block;
}

Array<double> elementsof(const Parameters& parameters) {
  Array<double> elements(parameters.count());
  pack(parameters.q, parameters.taupi.data(), elements.data());
  pack(parameters.r, parameters.taubeta.data(), elements.data() + parameters.ntaupi());
  std::copy(parameters.gamma.begin(), parameters.gamma.end(),
            elements.data() + parameters.ntaupi() + parameters.ntaubeta());
  return elements;
}

Parameters parametersof(int q, int r, int g, const Array<double>& elements) {
  Parameters parameters{q, r, g, Array<double>(square(q)), Array<double>(square(r)), Array<double>(at(g))};
  unpack(q, elements.data(), parameters.taupi.data());
  unpack(r, elements.data() + parameters.ntaupi(), parameters.taubeta.data());
  std::copy_n(elements.data() + parameters.ntaupi() + parameters.ntaubeta(), g, parameters.gamma.data());
  return parameters;
}

Parameters parametersof(int q, int r, int g, const Estimates& est) {
  return {q, r, g, est.taupi.copy(), est.taubeta.copy(), est.gammahat.copy()};
}

}  // namespace kdr
