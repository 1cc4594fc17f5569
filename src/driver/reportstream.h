// Writing to the report. A line has a text form and an HTML form, side by side at the place of writing; the report's
// mode picks one. Nothing is written while no report is open.
#pragma once

#include "driver/runrecord.h"

namespace kdr {

// The same in both modes.
void report(const char* format, ...) __attribute__((format(printf, 1, 2)));
// `text` in text mode, `html` in HTML mode; both take the same arguments.
void report2(const char* text, const char* html, ...) __attribute__((format(printf, 1, 3), format(printf, 2, 3)));
// In one mode only.
void reporttext(const char* format, ...) __attribute__((format(printf, 1, 2)));
void reporthtml(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Ends a line: a newline, in HTML "<br>" and a newline.
void reportbreak();
// A line and its reportbreak.
void reportline(const char* format, ...) __attribute__((format(printf, 1, 2)));
// n blanks, in HTML n times "&nbsp;".
void reportblank(int n);
// Text mode only: a blank, n hyphens, a newline.
void reportrule(int n);

// True when the report goes to standard output: `outfile` is the word "stdout" in any case.
[[nodiscard]] bool reportisstdout();
// Cuts a report that is a file at its current position.
void cutreport();

// The place that the results of a later pass go back to, so that they take the place of an earlier one's. markreport
// remembers where the report stands; rewindreport goes back there. Both do nothing where a report cannot go back: on
// standard output, on a device, and before a mark was set.
void markreport();
void rewindreport();

}  // namespace kdr
