// Names, labels and IDs of any length: the section that may stand behind the blocks of an MDM file.
//
// Its form: a mark of 8 bytes; a version (int); the number of bytes behind it (8 bytes); then entries, each a letter,
// the number of its bytes (8 bytes) and its content. Entries of a letter that a program does not know are passed over.
//
//   v  of a variable: level and index (int each, from 1), its name, its label, the number of its values that have
//   labels
//      (int) and for each the value (double) and its label
//   i  of a level (int) whose IDs are numbers in the place of texts: how many (int), and the text of each from 1 on
//
// A text is the number of its bytes (int) and the bytes. A file without the section has only what its head tells.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/names.h"

namespace kdr {

// What a source says of a variable.
struct VariableText {
  std::string name;   // whole; empty where it is not known
  std::string label;  // or nothing
  ValueLabels labels;
};

struct LongTexts {
  std::vector<VariableText> variables[3];  // of each level, [v - 1]; may be shorter than its variables
  std::vector<std::string> ids[2];         // of level 2 and level 3, [number - 1]; none: the IDs are what they are

  [[nodiscard]] bool any() const;
  // Of variable v (from 1) of a level (from 1), or null.
  [[nodiscard]] const VariableText* of(int level, int v) const;
  // The whole ID of a unit of level 2 or 3, or null where it is what it is.
  [[nodiscard]] const std::string* wholeid(int level, const Id& id, bool numeric) const;
};

[[nodiscard]] std::string textsection(const LongTexts& texts);
// Reads a section, to the last byte. False for anything else; `counts` has the variables of each level.
[[nodiscard]] bool readsection(std::string_view section, const int (&counts)[3], LongTexts& texts);
// Whether bytes begin as a section does.
[[nodiscard]] bool beginssection(std::string_view bytes);

}  // namespace kdr
