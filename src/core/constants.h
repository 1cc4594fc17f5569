// The constants that hold for a whole run.
#pragma once

#include "core/version.h"      // version, fileversion: made by CMake
#include "kernel/constants.h"  // missingcode, absent, bigvalue

namespace kdr {

// The unused slot in the term tables of Model.
inline constexpr int noslot = -99;

inline constexpr int maxhypotheses = 128;
inline constexpr int maxextra = 12;    // exploratory candidates of one coefficient
inline constexpr int maxline = 16384;  // a text line with its zero
inline constexpr int maxpath = 260;    // a path with its zero
inline constexpr int maxtitle = 64;    // a problem title with its zero

inline constexpr const char* module = "KDR3";

}  // namespace kdr
