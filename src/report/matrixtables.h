// The covariance matrices of the random effects, as covariances and as correlations.
#pragma once

#include "core/tables.h"

namespace kdr {

enum class MatrixTitle { plain = 0, standarderror = 1, renewed = 2, average = 3, weightedaverage = 4, robusterror = 5 };

// Writes an n by n matrix of the shape of a tau: taupi one line per row, labelled by pinames and pisubs, taubeta in
// blocks of 6 columns labelled by betanames1, betanames2 and their subscripts. `zero` adds "(0)" to the plain and the
// renewed title. An element that could not be computed reads "NC".
void tautable(Tau which, MatrixTitle kind, bool zero, int n, const double* matrix);

// Writes a tau as correlations; nothing for an order of 1.
void correlationtable(Tau which, int n, const double* matrix);

}  // namespace kdr
