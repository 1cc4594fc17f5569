// How the process ends: a failure told by its row of the table (core/failuretable.h), and the one stop sequence.
#pragma once

#include <string>

#include "core/failure.h"

namespace kdr {

// Prints the words of row `code` of the failure table, with `text` for its argument, and runs the stop sequence.
// Codes 2, 11 to 13, 15, 16 and 18 write to the report, the others to standard output. Code 0 is the normal end and
// code 100 every stop with words of its own: both print `text`, if not empty, and a newline.
[[noreturn]] void fail(int code, const char* text = "");

// Tells a failure that was handed up, and runs the stop sequence. One that the observer asked for has nothing to tell.
[[noreturn]] void tell(const Failure& failure);
// tell, if there is one.
void stopif(const Failure& failure);

// The stop sequence alone, for callers that print their own words: closes the report, keeps a series consistent,
// removes every temporary file, waits, and ends the process with `code`.
[[noreturn]] void stoprun(int code);

// Marks the run as one whose results did not all converge, and prints `words`, which may be empty.
void notconverged(const std::string& words);
// The end of a model run: code 0, or with -strict unconvergedcode when something did not converge.
inline constexpr int unconvergedcode = 20;
[[noreturn]] void endrun();

// The words of a stop with code 100: printed to standard output as printf does, then the stop sequence.
[[noreturn]] void stopwith(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What higher rooms do at a stop; null while they have nothing to do.
struct StopHooks {
  void (*closelog)(int code) = nullptr;     // keeps or discards the log of a construction
  void (*closeseries)(int code) = nullptr;  // marks or pools the series of a multiple-imputation data set
  void (*tellfit)() = nullptr;              // at a failure: what -fit has made, when there is no report yet
};
extern StopHooks stophooks;

// What the stop sequence calls last, with the exit code; null ends the process. A harness that runs many jobs in one
// process puts a function here that leaves the job in another way; it must not return. With one in place nothing waits.
extern void (*endprocess)(int code);

// Installs the handlers of floating-point exceptions, interrupt, break and termination.
void installhandlers();

// While one lives, a read that waits returns at a signal that asks for the end. Elsewhere signals break no call.
struct BreakableReads {
  BreakableReads();
  ~BreakableReads();
  BreakableReads(const BreakableReads&) = delete;
  BreakableReads& operator=(const BreakableReads&) = delete;
};

// A signal that asked for the end runs the stop sequence here, with the words of its kind. Called at safe points:
// between blocks of data, between iterations, at questions.
void checksignals();
// True when a signal has asked for the end: checksignals will not return.
[[nodiscard]] bool endrequested();

// While the estimation iterates, the next interrupt key only sets a mark that the loop samples; one after it ends the
// process. A macro loop holds interrupts around the loops inside it, so that no moment between two passes is different.
void holdinterrupts();             // the outermost clears the mark; the next interrupt key sets it
void releaseinterrupts();          // after the outermost, every interrupt key ends the process
void rearminterrupts();            // clears the mark, once it has been answered
[[nodiscard]] bool interrupted();  // the mark

}  // namespace kdr
