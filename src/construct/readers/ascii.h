// Raw data in fixed columns, described by a format such as "(A6,1X,A4,2F8.2,/,3F6.0)".
//
// A fields are the IDs, the level-3 one first; F, E and G fields are the values; X fields are passed over; a slash goes
// on to the next line. Fields are taken by counted bytes. A blank value field is a missing value. IDs are texts. A line
// that ends early takes its last fields from the next one; such records are counted.
#pragma once

#include <string>

#include "construct/levelsource.h"

namespace kdr {

inline constexpr std::size_t maxformat = 1024;  // a format text with its zero

enum class FormatKind : int { none = 0, a = 1, f = 2, e = 3, g = 4, slash = 5, x = 6 };

struct FormatItem {
  int count = 1;  // repetition
  FormatKind kind = FormatKind::none;
  int width = 1;
  int consumed = 0;      // characters of the format text that the item took
  char unusable = '\0';  // a character that no item can have
  bool twice = false;    // it has more than one letter
};

// True for an acceptable format text; otherwise prints what is wrong.
[[nodiscard]] bool checkformat(const std::string& format);

// Reads the item at the pointer into a zero-terminated format text, whose letters it makes upper case.
[[nodiscard]] FormatItem nextitem(char* format);

// Reads the next record of level index `level` with `idfields` IDs: 0, or -1 at the end of the file. Places that the
// format does not fill are missing, IDs blank. Stops with code 100 where format and data do not go together, and at a
// record that takes fields from a line which is not its own, where the data are declared to be complete. A last record
// whose line has no end does not count; it is named on the console and in the log, as is a record in whose midst the
// file ends.
[[nodiscard]] int asciirecord(int level, int idfields, Id* id3, Id* id2, double* values);

// Tells, once, how many records so far took fields from a line that is not theirs. The end of the file does so itself.
void tellcrossing(int level);

// The operations of RawReader.
void openascii(int level);
void prepareascii(int level);
[[nodiscard]] int asciirecordof(int level, double* values, Id* id3, Id* id2);
void closeascii(int level);

}  // namespace kdr
