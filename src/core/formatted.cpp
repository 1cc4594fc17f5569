#include "core/formatted.h"

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
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const auto c = static_cast<unsigned char>(shown[i]);
    const auto next = i + 1 < shown.size() ? static_cast<unsigned char>(shown[i + 1]) : 0U;
    if (c == 0xC2 && next >= 0x80 && next < 0xA0) shown[i] = shown[i + 1] = '?';
    if (c < ' ' || c == 0x7F) shown[i] = c == '\t' ? ' ' : '?';
  }
  return shown;
}

}  // namespace kdr
