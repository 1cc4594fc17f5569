// What the fields of the run settle among themselves, however they were filled.
#pragma once

namespace kdr {

// Refuses, with words and code 100, what cannot be together: non-linear types and their iteration keywords, Laplace-6
// and quadrature without their kinds of outcome, plausible values that cannot take the place of the first, a count or
// exposure variable that the model uses, a latent variable regression without Fisher steps, in a multinomial run or
// without an outcome and a predictor. Gives the fields that follow from others their values: fixsigma2, stopval,
// popavit, accel, fishertype, and the level-1 residual file that the graph file of a run with categories needs.
//
// Called at the end of a command file, and again once the dialogue has asked the last question; it changes nothing the
// second time when nothing was asked.
void settlerecord();

// What a latent variable regression needs, for the dialogue, which asks again.
[[nodiscard]] bool hasoutcomeandpredictor();
inline constexpr const char* incompletelvr =
    "A latent variable regression needs an outcome and a predictor among its coefficients!\n";

}  // namespace kdr
