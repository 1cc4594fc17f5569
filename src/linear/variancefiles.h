// The variance-covariance files of PRINTVARIANCE-COVARIANCE:.
#pragma once

#include "linear/fisher.h"
#include "linear/pass.h"

namespace kdr {

inline constexpr const char* taufile = "tauvc.dat";
inline constexpr const char* gammafile = "gamvc.dat";
inline constexpr const char* robustgammafile = "gamvcr.dat";

// Writes one row of gammahat and `scale` times the matrix, row by row, to `path`, anew or behind what stands there, as
// printvc asks.
void writegammafile(const char* path, const Array<double>& matrix, double scale);
// Writes taupi, taubeta, the covariance of their elements when fishertype is not 0 and it could be computed, and, if
// `withsigma2`, sigma2.
void writetaufile(const char* path, const Pass& pass, const FisherWork& fisher, bool withsigma2);
// The closing list of the files that a linear run has made.
void listvariancefiles();

}  // namespace kdr
