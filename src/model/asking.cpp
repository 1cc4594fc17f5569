#include "model/asking.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "driver/questions.h"

namespace kdr {

std::string formatted(const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

char askletter(const std::string& prompt, const char* choices) {
  std::string line;
  for (;;) {
    if (!readanswer(prompt + " ", line)) noproperresponse();
    if (!line.empty() && std::strchr(choices, line[0]) != nullptr) return line[0];
  }
}

}  // namespace kdr
