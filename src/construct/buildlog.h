// KDR3MDM.STS, the log of a construction, in the working directory.
#pragma once

#include <cstdio>
#include <string>

namespace kdr {

inline constexpr const char* logname = "KDR3MDM.STS";

// Opens the log for a new construction, with what logahead has for it. Until then, and after closelog, nothing is
// written to it.
void openlog();
// The log's stream, null while it is closed.
[[nodiscard]] std::FILE* logstream();
// A line for the log alone: one of the extra messages that the console points to at the end.
void logextra(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same words to the console and to the log.
void logboth(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A line for the console now, and for the head of the log that is opened next: what one long file told before.
void logahead(const std::string& words);
// Counts an extra message; logextra does so itself.
void countextra();
[[nodiscard]] int extramessages();
// Closes the log; failure 5 when it could not be written.
void closelog();

}  // namespace kdr
