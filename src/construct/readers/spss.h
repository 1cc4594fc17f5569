// SPSS system files (.sav), compressed case by case or not.
//
// A case is a row of 8-byte slots: a numeric variable takes one, a string as many as it needs. The variable table has
// one row for each slot; those that continue a string are hidden. In a compressed file blocks of eight one-byte codes
// stand between the values and tell what each slot holds.
#pragma once

#include "construct/levelsource.h"

namespace kdr {

// The operations of RawReader. A file that is no SPSS file, or whose dictionary cannot be read, is refused with words
// of its own and failure 1. Data that break off end there, which the console and the log tell; so do they of data that
// hold more cases than they state or no end where one has to be.
void openspss(int level);
void preparespss(int level);
[[nodiscard]] int spssrecord(int level, double* values, Id* id3, Id* id2);
void closespss(int level);

}  // namespace kdr
