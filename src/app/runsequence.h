// The sequence of one job, from the command line to its end.
#pragma once

namespace kdr {

// Runs the job that the command line asks for: makes one MDM file, or estimates one model. Never returns.
[[noreturn]] void runjob(int argc, char** argv);

}  // namespace kdr
