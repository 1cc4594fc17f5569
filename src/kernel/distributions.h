// Tail probabilities, and factorials.
#pragma once

namespace kdr {

// Tail probabilities, exact to some twelve digits of their own, down to the smallest double, for degrees of freedom
// from 1 to 1e6 and beyond: incomplete gamma and beta functions of Boost.Math. A value that is not a number has none.

// The two-sided p-value of Student's t.
[[nodiscard]] double tprob(double df, double t);
// The upper tail of chi-square; 1.0 at or below 0.0.
[[nodiscard]] double chisqprob(double df, double x);
// The upper tail of F; 1.0 at or below 0.0.
[[nodiscard]] double fprob(double df1, double df2, double f);
// The two-sided p-value of a standard normal.
[[nodiscard]] double normalprob(double z);

// The two-sided 5% point of Student's t, rounded up to three decimals (df 1: four). Above 2500 degrees of freedom it is
// 1.96, and for a df below 1, which has no such point.
[[nodiscard]] double tcritical(int df);
// The same unrounded, for any df above 0.0, infinity among them.
[[nodiscard]] double tquantile(double df);

// n! as a floating-point value: 1 for n below 2, infinite above 170.
[[nodiscard]] double factorial(int n);

// log x!, x >= 0. Below 65 a fraction of x is dropped; from there on log Gamma(x + 1) by the approximation of Lanczos
// (1964).
[[nodiscard]] double logfactorial(double x);

// log (n over y) of real numbers, by log Gamma. Safe in several threads.
[[nodiscard]] double logcombinations(double n, double y);

}  // namespace kdr
