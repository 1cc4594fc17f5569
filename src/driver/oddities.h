// What a command file says in vain or in an odd way. The run goes on, but nobody should have to watch the console to
// know of it.
#pragma once

#include <string>

namespace kdr {

// Prints the words as they are, and keeps them, without blanks and new lines at their ends, in
// run.warnings: for the report below its header, and for the results document. With -strict the run stops instead, with
// `strictcode`.
void oddcommand(const std::string& words, int strictcode = 100);

}  // namespace kdr
