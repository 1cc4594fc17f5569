// The command line.
#pragma once

#include <optional>
#include <string>

#include "command/formula/fit.h"

namespace kdr {

// What the command line asks of the process beyond the fields of `run` that it sets.
struct Options {
  bool templatejob = false;  // an MDM file is to be made: -r named a template, or -from a file, which has been read
  std::optional<FitRequest> fit;  // -fit
};

// Reads the options into `run`, in order, and the two positional words into run.files.mdmfile and cmdfile. A template
// given by -r is read at once, a long file given by -from at the end; another response file replaces standard input. A
// bad option prints the usage and stops with 100.
Options readoptions(int argc, char** argv);

}  // namespace kdr
