#include "command/text.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstdlib>

#include "core/constants.h"
#include "core/formatted.h"

namespace kdr {

namespace {

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

std::string uppercase(std::string_view text) {
  std::string raised(text);
  std::transform(raised.begin(), raised.end(), raised.begin(), upper);
  return raised;
}

bool sameword(std::string_view a, std::string_view b) { return a.size() == b.size() && beginswith(a, b); }

bool beginswith(std::string_view text, std::string_view head) {
  return text.size() >= head.size() &&
         std::equal(head.begin(), head.end(), text.begin(), [](char a, char b) { return upper(a) == upper(b); });
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return text.substr(0, 0);
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string titlefrom(std::string_view text) {
  std::string title = printable(text.substr(0, maxtitle - 1));
  title.erase(title.find_last_not_of(' ') + 1);
  return title;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  for (;;) {
    const std::size_t end = text.find(separator);
    pieces.emplace_back(trimmed(text.substr(0, end)));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

char firstletter(std::string_view text) { return text.empty() ? '\0' : upper(text[0]); }

int wholenumber(const std::string& text) {
  return static_cast<int>(std::clamp<long>(std::strtol(text.c_str(), nullptr, 10), INT_MIN, INT_MAX));
}

bool isreal(const std::string& text) {
  // The words for infinity and for what is no number are no reals here.
  const std::size_t digit = text.find_first_not_of(" \t+-.");
  if (digit == std::string::npos || text[digit] < '0' || text[digit] > '9') return false;
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return end != text.c_str();
}

bool iswholereal(const std::string& text) {
  if (!isreal(text)) return false;
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return *end == '\0';
}

double realnumber(const std::string& text) {
  if (!isreal(text)) return 0.0;
  return std::clamp(std::strtod(text.c_str(), nullptr), -DBL_MAX, DBL_MAX);
}

}  // namespace kdr
