// Random numbers of one replicate. The stream follows from seed and number of the replicate alone, so that it doesn't
// matter which thread draws it, or in which order. Steele, Lea and Flood (2014), "Fast splittable pseudorandom number
// generators".
#pragma once

#include <cstdint>

namespace kdr {

class Generator {
 public:
  Generator(std::uint64_t seed, std::uint64_t replicate);

  [[nodiscard]] std::uint64_t bits();
  [[nodiscard]] double uniform();  // above 0 and below 1
  [[nodiscard]] std::uint64_t below(std::uint64_t n);
  [[nodiscard]] double normal();             // Marsaglia's polar method
  [[nodiscard]] double gamma(double shape);  // Marsaglia and Tsang (2000); 0 for a shape of 0
  [[nodiscard]] double chisquare(double df) { return 2.0 * gamma(0.5 * df); }
  [[nodiscard]] double binomial(double n, double p);
  [[nodiscard]] double poisson(double mean);  // Ahrens and Dieter (1974)

 private:
  std::uint64_t state;
  double spare = 0.0;
  bool havespare = false;
};

}  // namespace kdr
