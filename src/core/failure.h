// Why something could not be done: a row of the program's table of failures, or words of its own. A function that can
// fail returns one; nothing below the program tells it or ends the process.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kdr {

struct [[nodiscard]] Failure {
  int row = 0;                           // of the table; 0: none; ownwords: no row
  std::string argument;                  // of the row's words
  std::string reportwords;               // for the report, before the row's words
  std::vector<std::string> reportlines;  // lines of the report behind these
  std::string consolewords;              // for the console, with their new lines, before the row's words
  int systemerror = 0;                   // errno of the call that failed, 0: none
  [[nodiscard]] explicit operator bool() const { return row != 0; }
};

inline constexpr int ownwords = 100;
inline constexpr int abandoned = -1;                 // the observer gave the fit up: there is nothing to tell
inline constexpr int fulldisk = 5, notemporary = 6;  // rows that whoever writes files knows

[[nodiscard]] inline Failure failed(int row, std::string argument = {}) {
  Failure failure;
  failure.row = row;
  failure.argument = std::move(argument);
  return failure;
}
[[nodiscard]] inline Failure failedwith(std::string consolewords, std::string reportwords = {}) {
  Failure failure;
  failure.row = ownwords;
  failure.consolewords = std::move(consolewords);
  failure.reportwords = std::move(reportwords);
  return failure;
}
// The same words on both.
[[nodiscard]] inline Failure failedboth(const std::string& words) { return failedwith(words, words); }

// What went wrong in one line, for a caller without console and report.
[[nodiscard]] std::string sentenceof(const Failure& failure);

}  // namespace kdr
