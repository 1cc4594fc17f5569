// The variance-covariance files of PRINTVARIANCE-COVARIANCE:.
#pragma once

#include "core/results.h"

namespace kdr {

inline constexpr const char* taufile = "tauvc.dat";
inline constexpr const char* gammafile = "gamvc.dat";
inline constexpr const char* robustgammafile = "gamvcr.dat";
// Of the phases of a non-linear run.
inline constexpr const char* unitspecificgammafile = "gamvcus.dat";
inline constexpr const char* populationgammafile = "gamvcpa.dat";
inline constexpr const char* robustpopulationgammafile = "gamvcpar.dat";
inline constexpr const char* laplacetaufile = "tauvcl6.dat";
inline constexpr const char* laplacegammafile = "gamvcl6.dat";
inline constexpr const char* quadraturetaufile = "tauvcagq.dat";
inline constexpr const char* quadraturegammafile = "gamvcagq.dat";

// Writes one row of the fixed effects and their covariance (ngamma squared) row by row to `path`, anew or behind what
// stands there, as printvc asks. An empty covariance is one that cannot be computed: each element is missingcode.
void writegammafile(const char* path, const Array<double>& gamma, const Array<double>& covariance);
// Writes taupi, taubeta, the covariance of their elements when fishertype is not none (zeros when it could not be
// computed), and, if `withsigma2`, sigma2.
void writetaufile(const char* path, const Estimates& est, const TauErrors& errors, bool withsigma2);
// The closing list of the files that a linear run has made.
void listvariancefiles();
// The pieces of such a list: a break inside a sentence, and its end.
void filelistbreak();
void endfilelist();

}  // namespace kdr
