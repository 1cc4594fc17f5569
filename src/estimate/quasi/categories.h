// The categories of a multinomial or ordinal outcome, and the weight matrices of its M = C - 1 working responses.
//
// Multinomial: response c stands for category c against the last one, p its probability. Ordinal: response c stands for
// the cut at category c, p the cumulative probability of a value at or below it. Categories are sorted by value.
#pragma once

#include <vector>

#include "core/failure.h"
#include "core/names.h"
#include "core/outcome.h"
#include "estimate/analysis.h"
#include "kernel/array.h"

namespace kdr {

struct CategoryTable {
  std::vector<double> value;  // C values, ascending
  std::vector<double> count;  // their records
};

// Reads the outcome of all records that the analysis keeps and fills the table. Fails when there are more or fewer than
// the categories that the model tells.
[[nodiscard]] Failure readcategories(const Analysis& analysis, CategoryTable& table);

// The labels of n categories with these values, all different: whole numbers in at most 4 characters, or, when two
// categories would then look the same, as many digits for all as it takes, up to the 12 characters of a name.
[[nodiscard]] Array<Name> categorylabels(const double* values, int n);

// The M probabilities of the first working values: the proportions, cumulated in an ordinal run. When one category has
// less than 0.15, those of equally frequent categories; but not in an ordinal run whose first thresholds would then be
// out of order. From equal cuts c/C a first pass without effects ends near
//   z_c = logit(c/C) + (P_c - c/C) / (c/C (1 - c/C)),  P_c the cumulative proportions:
// where these don't rise with c, the proportions themselves are taken, none below a hundredth of an equal share.
[[nodiscard]] std::vector<double> startingprobabilities(const Outcome& outcome, const CategoryTable& table);

// Probability of every response from its linear predictor eta (M values each).
void responseprobabilities(const Outcome& outcome, const double* eta, int M, double* p);

// z = eta + V^-1 (indicator - p) of a multinomial record, V = diag(p) - p p'; of an ordinal one
// z_c = eta_c + (indicator_c - p_c) / (p_c (1 - p_c)). False when V is singular.
[[nodiscard]] bool workingresponses(const Outcome& outcome, const double* eta, const double* indicator, const double* p,
                                    int M, double* z);

// The weight matrix W of a record, M by M: multinomial V; ordinal the inverse of
// V_cd = 1 / (p_d (1 - p_c)), c <= d, which is tridiagonal:
//   W_cc = g_c^2 (1/q_c + 1/q_c+1),  W_c,c+1 = -g_c g_c+1 / q_c+1,  g_c = p_c (1 - p_c),  q_c = p_c - p_c-1
// False when V is singular, and when the predictors of an ordinal record don't rise: W isn't positive definite then.
[[nodiscard]] bool responseweights(const Outcome& outcome, const double* eta, const double* p, int M, double* W);

// The failure of a singular weight matrix.
[[nodiscard]] Failure nearsingular();

}  // namespace kdr
