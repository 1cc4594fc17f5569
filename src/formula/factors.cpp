#include "formula/factors.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <numeric>

#include "core/constants.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "formula/ranks.h"
#include "kernel/places.h"

namespace kdr {

namespace {

constexpr const char* missingname = "NA";

// The level of each value of a column as it came, before those that do not occur are dropped.
struct Levels {
  std::vector<std::string> names;
  std::vector<int> codes;
};

Levels textlevels(const LongColumn& column) {
  std::vector<std::size_t> order(column.texts.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (!column.ordered)
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      const int alike = strcasecmp(column.texts[a].c_str(), column.texts[b].c_str());
      return alike != 0 ? alike < 0 : column.texts[a] < column.texts[b];
    });
  Levels levels;
  std::vector<int> rank(order.size(), -1);
  for (const std::size_t text : order) {
    if (column.texts[text] == missingname) continue;
    rank[text] = static_cast<int>(levels.names.size());
    levels.names.push_back(column.texts[text]);
  }
  levels.codes.reserve(column.codes.size());
  for (const int code : column.codes) levels.codes.push_back(code < 0 ? -1 : rank[static_cast<std::size_t>(code)]);
  return levels;
}

Levels numberlevels(const LongColumn& column) {
  Ranks ranks = ranksof(column.numbers);
  Levels levels{{}, std::move(ranks.codes)};
  if (!holdsnames(column)) {
    for (const double value : ranks.values) levels.names.push_back(formatted("%.15g", value));
    return levels;
  }
  std::map<double, int> places;  // of labels that no record has, too
  for (const auto& row : column.labels) places[row.first] = 0;
  for (auto& [value, place] : places) {
    place = static_cast<int>(levels.names.size());
    const std::string& label =
        std::find_if(column.labels.begin(), column.labels.end(), [value = value](const auto& row) {
          return row.first == value;
        })->second;
    const bool twin = std::count_if(column.labels.begin(), column.labels.end(),
                                    [&label](const auto& other) { return other.second == label; }) > 1;
    levels.names.push_back(twin ? label + formatted(" (%.15g)", value) : label);
  }
  for (int& code : levels.codes)
    if (code >= 0) code = places.at(ranks.values[static_cast<std::size_t>(code)]);
  return levels;
}

}  // namespace

bool holdsnames(const LongColumn& column) {
  if (column.text) return true;
  if (column.labels.empty()) return false;
  double last = missingcode;
  bool any = false;
  for (const double value : column.numbers) {
    if (value == missingcode || (any && value == last)) continue;
    last = value;
    any = std::any_of(column.labels.begin(), column.labels.end(), [&](const auto& row) { return row.first == value; });
    if (!any) return false;
  }
  return any;
}

std::string straytext(const LongColumn& column) {
  if (!column.text || column.why.empty()) return "";
  const auto numbers =
      std::count_if(column.texts.begin(), column.texts.end(), [](const std::string& text) { return realof(text); });
  return 2 * static_cast<std::size_t>(numbers) > column.texts.size() ? column.why : "";
}

std::string strayrefusal(const LongColumn& column) {
  const std::string stray = straytext(column);
  if (stray.empty()) return "";
  return column.name + " would be a column of numbers, but " + stray +
         ". Name a code of missing values by -missing, mend the file, or write factor(" + column.name + ").";
}

LongColumn astexts(const LongColumn& column) {
  if (column.text) return column;
  LongColumn texts;
  texts.text = true;
  Places known;
  for (const double value : column.numbers) {
    if (value == missingcode) {
      texts.codes.push_back(-1);
      continue;
    }
    texts.codes.push_back(static_cast<int>(known.of(keyof(value))));
    if (known.size() > texts.texts.size()) texts.texts.push_back(formatted("%.15g", value));
  }
  return texts;
}

std::vector<int> namecodes(const LongColumn& column) {
  if (!column.text) return ranksof(column.numbers).codes;
  std::vector<int> codes = column.codes;
  const auto missing = std::find(column.texts.begin(), column.texts.end(), missingname) - column.texts.begin();
  for (int& code : codes)
    if (code == missing) code = -1;
  return codes;
}

Factor factorof(const LongColumn& column, const std::vector<char>& kept) {
  Levels levels = column.text ? textlevels(column) : numberlevels(column);
  std::vector<int> place(levels.names.size(), -1);
  for (std::size_t i = 0; i < levels.codes.size(); ++i)
    if (levels.codes[i] >= 0 && (kept.empty() || kept[i] != 0)) place[static_cast<std::size_t>(levels.codes[i])] = 0;
  Factor factor;
  for (std::size_t k = 0; k < place.size(); ++k) {
    if (place[k] < 0) {
      factor.empty.push_back(levels.names[k]);
      continue;
    }
    place[k] = static_cast<int>(factor.levels.size());
    factor.levels.push_back(levels.names[k]);
  }
  factor.codes = std::move(levels.codes);
  for (int& code : factor.codes) code = code < 0 ? -1 : place[static_cast<std::size_t>(code)];
  return factor;
}

}  // namespace kdr
