// Stata files (.dta) of releases 6 to 11, written by a machine that stores the low byte first.
#pragma once

#include "construct/levelsource.h"

namespace kdr {

// The operations of RawReader. A file that is no Stata file of these releases is refused with words of its own and
// failure 1. The data end at the number of observations that the head states; where the file ends before, the console
// and the log tell.
void openstata(int level);
void preparestata(int level);
[[nodiscard]] int statarecord(int level, double* values, Id* id3, Id* id2);
void closestata(int level);

}  // namespace kdr
