#include "data/buildlog.h"

#include <cstdarg>

#include "data/scratch.h"

namespace kdr {

namespace {

std::FILE* stream = nullptr;
int extras = 0;

}  // namespace

void openlog() {
  if (stream != nullptr) std::fclose(stream);
  stream = openfile(logname, "w");
  extras = 0;
}

std::FILE* logstream() { return stream; }

void logextra(const char* format, ...) {
  countextra();
  if (stream == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stream, format, arguments);
  va_end(arguments);
}

void logboth(const char* format, ...) {
  for (std::FILE* target : {stdout, stream}) {
    if (target == nullptr) continue;
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(target, format, arguments);
    va_end(arguments);
  }
}

void countextra() { ++extras; }
int extramessages() { return extras; }

void closelog() {
  std::FILE* log = stream;
  stream = nullptr;
  if (log != nullptr) closechk(log);
}

}  // namespace kdr
