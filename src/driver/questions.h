// Questions on the console, each bounded by ten tries.
#pragma once

#include <string>

#include "driver/names.h"
#include "kernel/array.h"

namespace kdr {

inline constexpr int maxtries = 10;

// Prints the prompt as it is and reads one line from standard input, without its line end. Returns false at the end of
// input, with an empty line. Where standard input and output are a terminal the line can be edited, and the lines
// before it can be called back. A signal that came while it waited ends the run.
bool readanswer(const std::string& prompt, std::string& line);

// Prints "%s " with the prompt; 1 for an answer that begins with y or Y, 0 for n or N.
int askyesno(const char* prompt);
// Prints "%s " with the prompt; a whole number in lo..hi.
int asknumber(const char* prompt, int lo, int hi);
// Prints "%s " with the prompt; a real in lo..hi.
double askreal(const char* prompt, double lo, double hi);

// "Unable to get a proper response!" and the stop with code 100.
[[noreturn]] void noproperresponse();

// Prints "\n%s\n The choices are: \n" and the slots 1..n of a name table, three to a line; index `skip` stays blank.
void showchoices(const char* prompt, int n, const Array<Name>& table, int skip);
// Prints a section title of the dialogue, centered in 75 columns.
void centertitle(const char* text);

}  // namespace kdr
