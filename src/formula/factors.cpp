#include "formula/factors.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <numeric>

#include "core/constants.h"
#include "core/formatted.h"
#include "core/numbers.h"

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
  std::map<double, int> places;
  const bool labelled = holdsnames(column);
  if (labelled)
    for (const auto& [value, label] : column.labels) places[value] = 0;
  for (const double value : column.numbers)
    if (value != missingcode && (places.empty() || !places.contains(value))) places[value] = 0;
  Levels levels;
  for (auto& [value, place] : places) {
    place = static_cast<int>(levels.names.size());
    std::string name = formatted("%.15g", value);
    for (const auto& row : column.labels)
      if (labelled && row.first == value) {
        const std::string& label = row.second;
        const bool twin = std::count_if(column.labels.begin(), column.labels.end(),
                                        [&](const auto& other) { return other.second == label; }) > 1;
        name = twin ? label + " (" + name + ")" : label;
        break;
      }
    levels.names.push_back(std::move(name));
  }
  levels.codes.reserve(column.numbers.size());
  for (const double value : column.numbers) levels.codes.push_back(value == missingcode ? -1 : places[value]);
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
  std::map<double, int> known;
  for (const double value : column.numbers) {
    if (value == missingcode) {
      texts.codes.push_back(-1);
      continue;
    }
    const auto [place, fresh] = known.try_emplace(value, static_cast<int>(texts.texts.size()));
    if (fresh) texts.texts.push_back(formatted("%.15g", value));
    texts.codes.push_back(place->second);
  }
  return texts;
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
