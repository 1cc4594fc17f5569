// Descriptive statistics of one level's variables.
#pragma once

#include <cmath>
#include <cstdio>

#include "core/constants.h"
#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

// Running totals of the non-missing values of one variable. Those of the variance are taken from the first value on, so
// that a large mean costs no digits.
struct VariableTotals {
  double sum = 0.0;
  double first = 0.0;
  double deviations = 0.0;  // sum of value - first
  double squares = 0.0;     // sum of (value - first)^2
  double minimum = bigvalue;
  double maximum = -bigvalue;
  long long count = 0;
};

// Totals of `nvar` variables without a value.
[[nodiscard]] Array<VariableTotals> starttotals(int nvar);

inline void addvalue(VariableTotals& totals, double value) {
  if (totals.count == 0) totals.first = value;
  const double deviation = value - totals.first;
  totals.sum += value;
  totals.deviations += deviation;
  totals.squares += deviation * deviation;
  if (value < totals.minimum) totals.minimum = value;
  if (value > totals.maximum) totals.maximum = value;
  ++totals.count;
}

// Sum over count; 0 where there is no value.
[[nodiscard]] Array<double> meansof(const Array<VariableTotals>& totals);

// sqrt((S - D^2 / N) / (N - 1)), with D and S the sums of the deviations from the first value and of their squares and
// N the count; 0 where S - D^2 / N is not above 0 or N is below 2.
[[nodiscard]] double standarddeviation(const VariableTotals& totals);

// Writes the table of a level (1 to 3): name, count, mean, standard deviation, minimum and maximum of each variable.
// `names` is the level's name table with its intercept at 0.
void printdesc(std::FILE* stream, int level, const Array<Name>& names, const Array<double>& means,
               const Array<VariableTotals>& totals);

}  // namespace kdr
