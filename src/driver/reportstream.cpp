#include "driver/reportstream.h"

#include <strings.h>
#include <unistd.h>

#include <cstdarg>

namespace kdr {

namespace {

void write(const char* format, std::va_list arguments) {
  if (run.report.stream != nullptr) std::vfprintf(run.report.stream, format, arguments);
}

}  // namespace

void report(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write(format, arguments);
  va_end(arguments);
}

void report2(const char* text, const char* html, ...) {
  std::va_list arguments;
  va_start(arguments, html);
  write(run.report.html ? html : text, arguments);
  va_end(arguments);
}

void reporttext(const char* format, ...) {
  if (run.report.html) return;
  std::va_list arguments;
  va_start(arguments, format);
  write(format, arguments);
  va_end(arguments);
}

void reporthtml(const char* format, ...) {
  if (!run.report.html) return;
  std::va_list arguments;
  va_start(arguments, format);
  write(format, arguments);
  va_end(arguments);
}

void reportbreak() { report2("\n", "<br>\n"); }

void reportline(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write(format, arguments);
  va_end(arguments);
  reportbreak();
}

void reportblank(int n) {
  for (int i = 0; i < n; ++i) report2(" ", "&nbsp;");
}

void reportrule(int n) {
  reporttext(" ");
  for (int i = 0; i < n; ++i) reporttext("-");
  reporttext("\n");
}

bool reportisstdout() { return strcasecmp(run.files.outfile.c_str(), "stdout") == 0; }

void cutreport() {
  std::FILE* stream = run.report.stream;
  if (stream == nullptr || reportisstdout()) return;
  std::fflush(stream);
  // A report on something that cannot be cut, such as a pipe, stays as it is.
  if (ftruncate(fileno(stream), ftello(stream)) != 0) return;
}

void markreport() {
  if (run.report.stream != nullptr && !reportisstdout()) run.report.mark = ftello(run.report.stream);
}

void rewindreport() {
  if (run.report.stream != nullptr && run.report.mark >= 0) fseeko(run.report.stream, run.report.mark, SEEK_SET);
}

}  // namespace kdr
