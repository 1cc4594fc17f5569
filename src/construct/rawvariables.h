// The variables of a raw file whose format names them itself: every format but fixed columns.
//
// A reader's open() fills LevelSource::vartable, one row for each variable in file order. The template or the dialogue
// marks the rows that are wanted. The reader's prepare() calls settlevariables, and its record() then looks at the
// marks, or at LevelSource::chosen, and makes its IDs by numericid and textid.
#pragma once

#include <string>
#include <string_view>

#include "construct/levelsource.h"
#include "construct/rawvariable.h"
#include "core/names.h"

namespace kdr {

// A name as the MDM file may have it: without the signs that part names in a command file, and control characters.
[[nodiscard]] std::string usablename(const std::string& fullname);
// Appends a label to such a list, the later ones of a long list not.
void addlabel(std::string& labels, double value, std::string_view label);

// Gives the variable its name, without the blanks and zeros around it.
void namevariable(RawVariable& variable, std::string_view name, int width = 8);

inline constexpr int novariable = -1;
inline constexpr int severalvariables = -2;
// The row of the variable that the name tells, or one of these two. A variable is told by its whole name without regard
// to case (with regard to it where two differ by nothing else). Where there is none, by the first 8 characters, in
// SYSTAT data by 9 where one is a $; but what both names have behind them must not differ.
[[nodiscard]] int findvariable(const LevelSource& source, std::string_view name);
// The name that a template tells the row by: the one of the MDM file where that is enough, else the whole name; empty
// when neither does.
[[nodiscard]] std::string tellingname(const LevelSource& source, int row);
// The words for a variable that a name does not tell from another one: "%s" for its name, "%d" for its level from 1.
inline constexpr const char* namesalike =
    "Variable %s cannot be told from another one of the level-%d file. Give its whole name, or rename one of them!\n";

// Marks a variable of the level (index 0 to 2) as the ID column that `mark` tells, or as a variable of the MDM file.
// Stops with code 100 when the name is too long, when the file has no such variable or more than one, when it has a
// mark already, or when a variable of the MDM file is a character variable.
// Variables must be marked in the order of the raw file, since that is the order of the values of a record; in SYSTAT
// data any order is kept.
void markid(int level, int mark, const std::string& name);
void markvariable(int level, const std::string& name);
// Drops all marks of the level.
void clearmarks(int level);

// Settles run.mdm.numericids from the ID columns that are marked so far. Where some are texts, the columns of delimited
// text become texts too. False when the columns are of unlike kinds.
[[nodiscard]] bool agreeonids();
// The same, but stops with code 100.
void settleidkind();

// The row marked so, or -1.
[[nodiscard]] int idrow(const LevelSource& source, int mark);
// The name of a row without blanks, as a template shows it.
[[nodiscard]] std::string shownname(const RawVariable& variable);

// The part of prepare() that all formats share: sets `selected`, `row3` and `row2`.
void settlevariables(int level);

// The numeric ID of a value: floor(value + 0.2), or its whole part. Counts values with a fraction. Stops with code 100
// above 999999999999, and tells the record that readrecord was asked for.
[[nodiscard]] double numericid(double value, bool truncated = false);
// A text ID of any length, without the blanks around it. Stops with code 100 when a zero byte stands in it, which would
// end it in many places, and for one of more than 1000 bytes; tells the record.
[[nodiscard]] std::string wholeid(std::string_view text);
// Stops for a zero byte anywhere in a text ID, for formats that do not fill texts up with them.
void refusezeros(std::string_view text);
// A text ID through padname with width 12. Stops with code 100 when characters other than blanks or zeros stand behind
// the twelfth, or a zero within the text, and tells the record.
[[nodiscard]] Name textid(std::string_view text);

}  // namespace kdr
