#include "report/filecell.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace kdr {

namespace {

std::string formatted(const char* format, int decimals, double value) {
  char text[400];
  std::snprintf(text, sizeof text, format, decimals, value);
  return text;
}

}  // namespace

std::string filecell(double value, int width, int decimals) {
  constexpr double kept = 1.0e-7;
  constexpr int digits = 7;
  const auto columns = static_cast<std::size_t>(width);
  std::string text = formatted("%.*f", decimals, value);
  const bool keeps = std::fabs(std::strtod(text.c_str(), nullptr) - value) <= kept * std::fabs(value);
  if (std::isfinite(value) && (!keeps || text.size() > columns)) {
    text = formatted("%.*E", digits, value);
    const std::size_t e = text.find('E');
    const int exponent = std::atoi(text.c_str() + e + 1);
    std::string mantissa = text.substr(0, e);
    if (text.size() > columns) text = mantissa + "E" + std::to_string(exponent);
    if (text.size() > columns) {
      mantissa.erase(mantissa.find('.'), 1);
      text = mantissa + "E" + std::to_string(exponent - digits);
    }
  }
  return text.size() < columns ? std::string(columns - text.size(), ' ') + text : text;
}

}  // namespace kdr
