#include "core/numbers.h"

#include <charconv>
#include <climits>
#include <cmath>

namespace kdr {

std::optional<double> realof(std::string_view text) {
  constexpr std::string_view blanks = " \t\r";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  text = text.substr(first, text.find_last_not_of(blanks) - first + 1);
  const std::size_t digit = text[0] == '-' || text[0] == '+' ? 1 : 0;
  if (digit >= text.size() || !(text[digit] == '.' || (text[digit] >= '0' && text[digit] <= '9'))) return {};
  if (text[0] == '+') text.remove_prefix(1);
  double value = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return {};
  return value;
}

std::optional<int> wholeof(std::string_view text) {
  const std::optional<double> value = realof(text);
  if (!value || *value < INT_MIN || *value > INT_MAX || *value != std::trunc(*value)) return {};
  return static_cast<int>(*value);
}

}  // namespace kdr
