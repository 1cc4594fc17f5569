// Numbers as texts spell them, and what the standard library makes of them.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace kdr {

struct Spelling {
  std::string text;
  double value;
};

// 20,000 spellings in decimal notation of at most `width` characters.
inline std::vector<Spelling> spellings(std::size_t width) {
  std::vector<Spelling> list;
  const auto add = [&](const std::string& text) {
    if (text.size() <= width) list.push_back({text, std::strtod(text.c_str(), nullptr)});
  };
  for (const char* text : {"0", "-0", "+0.", ".5", "-.5", "123456789012345", "1234567890123456", "0.000000000000001",
                           "0.0000000000000001", "9007199254740993", "1e-5", "-1.5E+10", "1.7976931348623157e308",
                           "4.9e-324", "1e-400", "000000000000000000001", "1.0e36"})
    add(text);
  std::mt19937_64 random(17);
  while (list.size() < 20000) {
    char text[64];
    const double value = std::ldexp(double(random()) - 9.2e18, int(random() % 120) - 110);
    const char* forms[] = {"%.*f", "%.*g", "%+.*E", "%.*e"};
    std::snprintf(text, sizeof text, forms[random() % 4], int(random() % 18), value);
    add(text);
  }
  return list;
}

inline constexpr const char* notnumbers[] = {"12,50", "5.5-3", "0x1f", "1e999", "1.2.3", "3 4",
                                             "1D+03", "inf",   "nan",  "12ab",  "-",     "1e"};

}  // namespace kdr
