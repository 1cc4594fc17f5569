// Questions on the console, each bounded by ten tries.
#pragma once

#include <functional>
#include <string>

#include "core/names.h"
#include "kernel/array.h"

namespace kdr {

inline constexpr int maxtries = 10;

// What a question wants; each kind has its lines of help.
enum class Question {
  other,
  yesno,
  number,
  real,
  variable,
  unchanged,  // a new value, or an empty line for the old one
  outputfile,
  mdmfile,
  rawfile,
  typedfile,
  format,
  name,
  title,
  centering,
  role,
  deletion,
  interrupt,
};

// Prints the prompt as it is and reads one line from standard input, without its line end. An answer of a "?" alone,
// with or without blanks, is no answer: the lines of help for the question are printed, then `more`, and the question
// comes again. Returns false at the end of input, with an empty line. Where standard input and output are a terminal
// the line can be edited, and the lines before it can be called back. A signal that came while it waited ends the run.
bool readanswer(const std::string& prompt, std::string& line, Question question = Question::other,
                const std::string& more = {});

// Prints "%s " with the prompt; 1 for an answer that begins with y or Y, 0 for n or N.
int askyesno(const char* prompt);
// Prints "%s " with the prompt; a whole number in lo..hi.
int asknumber(const char* prompt, int lo, int hi);
// The same for a variable of a list: its number, or its name, which has a number of 1 or more. A name that begins with
// digits is a name. `find` gives the number of a name, below 1 when it tells none.
int askvariable(const char* prompt, int lo, int hi, const std::function<int(const std::string& name)>& find);
// Prints "%s " with the prompt; a real in lo..hi.
double askreal(const char* prompt, double lo, double hi);

// Tells that an answer begins as a number and is not the one that is wanted: "whole number".
void tellnonumber(const std::string& answer, const char* wanted);
// "Unable to get a proper response!" and the stop with code 100.
[[noreturn]] void noproperresponse();
// Code 100 where a read from standard input fails, which is not its end.
[[noreturn]] void unreadableinput();

// Prints "\n%s\n The choices are: \n" and the slots 1..n of a name table, three to a line; index `skip` stays blank.
void showchoices(const char* prompt, int n, const Array<Name>& table, int skip);
// Prints a section title of the dialogue, centered in 75 columns.
void centertitle(const char* text);

}  // namespace kdr
