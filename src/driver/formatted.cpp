#include "driver/formatted.h"

#include <cstdarg>
#include <cstdio>

namespace kdr {

std::string formatted(const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

std::string printable(std::string_view text) {
  std::string shown(text);
  for (char& c : shown)
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') c = '?';
  return shown;
}

}  // namespace kdr
