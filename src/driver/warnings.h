// What is odd about a run as a whole.
#pragma once

#include <string>

namespace kdr {

// Says the sentence on the console and keeps it in run.warnings: the report has it below its header, the results
// document among its own warnings. A sentence that was said already, as in each pass of a series, is not said again.
void warn(const std::string& words);

// Keeps it without a word, unless it is there; true: it was not.
bool keepwarning(const std::string& words, bool ofcommands);

}  // namespace kdr
