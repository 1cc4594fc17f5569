#include "construct/buildlog.h"

#include <cstdarg>
#include <string>
#include <utility>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/resultfile.h"

namespace kdr {

namespace {

ResultFile log;
std::string ahead;  // lines
int extras = 0;

// A construction that stops leaves its log, which tells why and ends by saying so, but none that was cut by a full disk
// or want of memory.
void keeplog(int code) {
  if (log.stream == nullptr) return;
  if (code != 3 && code != 5 && code != 6) {
    std::fprintf(log.stream, "The construction stopped here. No MDM file was made.\n");
    tryfinish(log);
  } else {
    std::fclose(std::exchange(log.stream, nullptr));
  }
}

}  // namespace

void openlog() {
  if (log.stream != nullptr) std::fclose(std::exchange(log.stream, nullptr));
  opentext(log, logname);
  stophooks.closelog = keeplog;
  extras = 0;
  std::fprintf(log.stream, "%s", std::exchange(ahead, {}).c_str());
}

std::FILE* logstream() { return log.stream; }

void logextra(const char* format, ...) {
  countextra();
  if (log.stream == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(log.stream, format, arguments);
  va_end(arguments);
}

void logboth(const char* format, ...) {
  for (std::FILE* target : {stdout, log.stream}) {
    if (target == nullptr) continue;
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(target, format, arguments);
    va_end(arguments);
  }
}

void logahead(const std::string& words) {
  const std::string line = printable(words) + "\n";
  std::printf("%s", line.c_str());
  ahead += line;
}

void countextra() { ++extras; }
int extramessages() { return extras; }

void closelog() {
  if (log.stream != nullptr) finishresult(log);
}

}  // namespace kdr
