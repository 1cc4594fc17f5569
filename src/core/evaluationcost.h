// What an evaluation of a likelihood by quadrature takes, roughly: for words and for defaults, never for a number of a
// result.
#pragma once

#include <string>

namespace kdr {

// Seconds of one core for so many points for each of the random effects of both levels, so many records (of an ordinal
// outcome about two for each), linear predictors of a record (1, C - 1 of a multinomial outcome), and level-1
// coefficients of all of them. On a machine of today it was within a factor of 2 of what outcomes of all types took.
[[nodiscard]] double evaluationseconds(int points, int effects, double records, int predictors, int columns);

// From here on a user is told before it begins.
inline constexpr double longevaluation = 5.0;
// "about 40 seconds", "about 3 minutes", "about 2 hours".
[[nodiscard]] std::string durationwords(double seconds);
// The sentence for who waits.
[[nodiscard]] std::string longevaluationwords(int points, double seconds);

}  // namespace kdr
