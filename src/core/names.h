// Names and IDs: 12 characters and a zero. A variable name stands right-justified in the first 8 columns.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kernel/array.h"

namespace kdr {

// A variable name or a text ID in the form that padname makes.
struct Name {
  char text[13];
};

// The label of one fixed effect at one level, blank-filled, with a zero in the last byte.
struct Label {
  char text[128];
};

// What values of a variable stand for, in the order of their source.
using ValueLabels = std::vector<std::pair<double, std::string>>;

// Normalises a name or ID in place. `buffer` has 13 bytes and arrives blank-filled with the text at its start. A zero
// byte or a column beyond `width` becomes a blank, the rest upper case; the text moves right until column `width` is
// not blank. An all-blank buffer stays blank.
void padname(char* buffer, int width);
// The same for a text of any length: at most `width` bytes of it enter the slot, and no part of a character.
[[nodiscard]] Name paddedname(std::string_view text, int width = 8);

// Characters of a name of a variable that count.
inline constexpr std::size_t significant = 8;

// Characters of a text in UTF-8. A byte of another code counts as one.
[[nodiscard]] std::size_t charactersof(std::string_view text);

// The lowest index 0..n of `table` whose slot agrees with `name` in its first 8 characters after padname with width 8,
// or -1.
[[nodiscard]] int findname(std::string_view name, const Array<Name>& table, int n);

// Shifts a slot that is not all blanks left until its first character is not a blank, and cuts it after 8 characters.
void leftname(char* buffer);
// The same as a text of its own.
[[nodiscard]] std::string leftname(const Name& name);

// True when the two slots agree in all 12 characters without regard to case.
[[nodiscard]] bool samename(const Name& a, const Name& b);
// Order of two text IDs over 12 characters without regard to case: below 0, 0 or above 0.
[[nodiscard]] int comparename(const Name& a, const Name& b);

// Closes up the first `n` slots of a table after the slot at `index` is removed, and blanks the last one.
void removename(Array<Name>& table, int n, int index);
void removename(Array<Label>& table, int n, int index);

// An ID of a level-2 or level-3 unit. The data set tells which of the two holds it.
struct Id {
  Name text;
  double number;
};

}  // namespace kdr
