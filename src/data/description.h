// Descriptive statistics of one level's variables.
#pragma once

#include <cmath>
#include <cstdio>

#include "driver/constants.h"
#include "driver/names.h"
#include "kernel/array.h"

namespace kdr {

// Running totals of the non-missing values of one variable.
struct VariableTotals {
  double sum = 0.0;
  double squares = 0.0;
  double minimum = bigvalue;
  double maximum = -bigvalue;
  long long count = 0;
};

// Totals of `nvar` variables without a value.
[[nodiscard]] Array<VariableTotals> starttotals(int nvar);

inline void addvalue(VariableTotals& totals, double value) {
  totals.sum += value;
  totals.squares += value * value;
  if (value < totals.minimum) totals.minimum = value;
  if (value > totals.maximum) totals.maximum = value;
  ++totals.count;
}

// Sum over count; 0 where there is no value.
[[nodiscard]] Array<double> meansof(const Array<VariableTotals>& totals);

// sqrt((S - N m^2) / (N - 1)), with S the sum of squares, N the count and m the mean; 0 where S - N m^2 is not above 0
// or N is below 2.
[[nodiscard]] double standarddeviation(const VariableTotals& totals, double mean);

// Writes the table of a level (1 to 3): name, count, mean, standard deviation, minimum and maximum of each variable.
// `names` is the level's name table with its intercept at 0.
void printdesc(std::FILE* stream, int level, const Array<Name>& names, const Array<double>& means,
               const Array<VariableTotals>& totals);

}  // namespace kdr
