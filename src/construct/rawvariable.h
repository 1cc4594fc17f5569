// One variable of a raw file whose format names it itself: every format but fixed columns.
#pragma once

#include <string>

#include "core/names.h"

namespace kdr {

inline constexpr int unwanted = 0;
inline constexpr int variablemark = 1;
inline constexpr int level3idmark = -1;
inline constexpr int level2idmark = -2;

inline constexpr std::size_t longestname = 12;  // a variable name as the user may give it
inline constexpr std::size_t longestid = 12;    // a text ID

// One variable of a raw file.
struct RawVariable {
  Name name{};           // the name in the MDM file, through padname with the format's width: 8, SYSTAT 9 with a $
  std::string fullname;  // as the file has it
  bool text = false;     // a character variable, which can be an ID only
  bool hidden = false;   // a row that nobody can name: the continuation of a long string
  int width = 0;         // bytes that a value takes; characters of a character variable
  int mark = unwanted;   // unwanted, variablemark, level3idmark or level2idmark
  std::string labels;    // what its values stand for ("1 = low, 2 = high"), or, where that is not known, the word "yes"
};

}  // namespace kdr
