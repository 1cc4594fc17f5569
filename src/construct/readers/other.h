// Raw data of type OTHER: any file that a library behind the layer of st.h reads. The name of such a file is its path,
// a slash and a type word, as in "schools.csv /delim".
#pragma once

#include <string>

#include "construct/levelsource.h"

namespace kdr {

// The format number of a type word, in any case, or -1. Of two rows with one word the first counts.
[[nodiscard]] int stformat(const std::string& word);

// Splits "path /word". Blanks around the slash do not count. The word is what follows the last slash, or the one before
// it where that makes a type word (stata/se). Stops with code 100 when there is no slash or nothing behind it.
void splitfiletype(const std::string& value, std::string& path, std::string& word);

// A line with the type words that a library reads; nothing in a build without any.
[[nodiscard]] std::string othertypes();

// Whether a file of the type could be raw data of this kind: its dictionary can be read.
[[nodiscard]] bool otherreads(const std::string& path, const char* word);

// The operations of RawReader. openother stops with code 100 for a type word that is unknown or has no library behind
// it and for a file that cannot be opened; with failure 1 where the dictionary cannot be read. Data that end before
// their time are reported on the console and in the log.
void openother(int level);
void prepareother(int level);
[[nodiscard]] int strecord(int level, double* values, Id* id3, Id* id2);
void closeother(int level);

// The same column by column: the next record, false at the end of the data; the value of a row of the file's table in
// it, missingcode or an empty text where it is missing; its labels and what the file says of it.
[[nodiscard]] bool otherrow(int level);
[[nodiscard]] double othernumber(int level, int row);
[[nodiscard]] const std::string& othertext(int level, int row);
[[nodiscard]] ValueLabels othervaluelabels(int level, int row);
[[nodiscard]] std::string otherlabel(int level, int row);

// Whether the numeric columns of the level can be read as the texts that the file has; reads one so; why a column is
// not numeric, where the file tells.
[[nodiscard]] bool othercanbetext(int level);
void otherastext(int level, int row);
[[nodiscard]] std::string otherwhytext(int level, int row);

}  // namespace kdr
