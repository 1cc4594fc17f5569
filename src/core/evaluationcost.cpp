#include "core/evaluationcost.h"

#include <cmath>

#include "core/formatted.h"

namespace kdr {

// Nanoseconds of a record at a node: 1.2 and 0.33 for each column, as many times as the weights of a record have cells.
double evaluationseconds(int points, int effects, double records, int predictors, int columns) {
  const double cells = 0.5 * predictors * (predictors + 1);
  return std::pow(points, effects) * records * cells * (1.2 + 0.33 * columns) * 1.0e-9;
}

std::string durationwords(double seconds) {
  constexpr double minute = 60.0, hour = 3600.0;
  const double ten = 10.0 * std::round(seconds / 10.0);
  if (seconds < 9.5) return formatted("about %.0f seconds", seconds);
  if (seconds < 1.5 * minute) return formatted("about %.0f seconds", ten);
  if (seconds < 1.5 * hour) return formatted("about %.0f minutes", seconds / minute);
  return formatted("about %.0f hours", seconds / hour);
}

std::string longevaluationwords(int points, double seconds) {
  return formatted("With %d points for each random effect an evaluation of the likelihood takes %s of one core.",
                   points, durationwords(seconds).c_str());
}

}  // namespace kdr
