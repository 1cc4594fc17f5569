// The head of every report: the program, its makers, date and time.
#pragma once

namespace kdr {

// Writes the header: product, contact, file name and version of the running program, and the local time now.
void writeheader();

}  // namespace kdr
