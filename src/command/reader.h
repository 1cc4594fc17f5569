// What the routines of the command file reader share. Internal to the reader.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "command/linereader.h"
#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

struct Keyword;

struct CommandReader {
  LineReader lines;
  bool deviance = false, df = false;  // that keyword was read
  int hypothesis = 0;                 // of the last GAMMA line
  int oddhypothesis = 0;              // of the first GAMMA line with more numbers than fixed effects, else with fewer
  int oddnumbers = 0;                 // their count
  bool toomany = false;               // they are more
  std::string excess;                 // what to say of the first other list that is longer than the model
  int set = -1;                       // the equation set of the LEVEL1: line in hand
  int ncoef1 = 0;                     // level-1 coefficients of the set so far
  int ncoef2 = 0;                     // level-2 coefficients of the set so far
  int nthresholds = 0;                // thresholds on the LEVEL1: line
  std::map<const Keyword*, int> lineof;  // where each keyword was met first
  std::string without2, without3;        // the first coefficient of level 1, of level 2, that has no equation
};

// One keyword: `value` is the text behind the line's first colon, never empty except for TITLE:.
using KeywordHandler = void (*)(CommandReader& reader, const std::string& value);

struct Keyword {
  const char* word;
  std::size_t compared;  // characters that are compared; 0: all of them
  KeywordHandler handler;
  bool repeats = false;  // several lines may bear it
};

// The first keyword that the line begins with, or null.
[[nodiscard]] const Keyword* findkeyword(const std::string& line);

// The value is none that the keyword can have: says what it wants, behind words of its own, and stops with code 100.
[[noreturn]] void refusevalue(const char* keyword, const char* wanted, const std::string& value,
                              const char* words = "");

// "Batch file ... specification invalid" and failure 9 with the name.
[[noreturn]] void badspecification(const char* what, const std::string& name);
// Failure 8 with the number of the line in hand.
[[noreturn]] void badline(const CommandReader& reader);
// The index of a variable, from `lowest` to `highest`; when there is none, failure 9 with the number of its line, and
// what may be meant.
[[nodiscard]] int variable(int line, const char* what, const std::string& name, const Array<Name>& table, int highest,
                           int lowest = 1);
// Tells of a name that is longer than what counts of it.
void tellcut(int line, std::string_view name, const Array<Name>& table, int v);

// The model: a LEVEL1: line and the LEVEL2: and LEVEL3: lines behind it.
void readlevel1(CommandReader& reader, const std::string& value);

// Keywords whose values are lists.
void readnonlin(CommandReader& reader, const std::string& value);
void readdeletion(CommandReader& reader, const std::string& value);
void readplausvals(CommandReader& reader, const std::string& value);
void readlvr(CommandReader& reader, const std::string& value);
void readesttau2(CommandReader& reader, const std::string& value);
void readesttau3(CommandReader& reader, const std::string& value);
void readcontau2(CommandReader& reader, const std::string& value);
void readcontau3(CommandReader& reader, const std::string& value);
void readcontrast(CommandReader& reader, const std::string& value);
void readconstrain(CommandReader& reader, const std::string& value);
void readresfil1(CommandReader& reader, const std::string& value);
void readresfil2(CommandReader& reader, const std::string& value);
void readresfil3(CommandReader& reader, const std::string& value);

}  // namespace kdr
