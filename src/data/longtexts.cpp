#include "data/longtexts.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace kdr {

namespace {

constexpr std::string_view mark = "KDR3TEXT";
constexpr int sectionversion = 1;
constexpr char variableletter = 'v', idletter = 'i';

template <class T>
void put(std::string& to, T value) {
  static_assert(std::is_arithmetic_v<T>);
  to.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void puttext(std::string& to, const std::string& text) {
  put(to, static_cast<int>(text.size()));
  to += text;
}

void putentry(std::string& to, char letter, const std::string& content) {
  to += letter;
  put(to, static_cast<long long>(content.size()));
  to += content;
}

// Takes values from the front of a text. What is not there makes it stop for good.
struct Taker {
  std::string_view rest;
  bool good = true;

  template <class T>
  T take() {
    T value{};
    if (rest.size() < sizeof value) good = false;
    if (!good) return value;
    std::memcpy(&value, rest.data(), sizeof value);
    rest.remove_prefix(sizeof value);
    return value;
  }
  std::string_view bytes(long long count) {
    if (count < 0 || static_cast<unsigned long long>(count) > rest.size()) good = false;
    if (!good) return {};
    const std::string_view taken = rest.substr(0, static_cast<std::size_t>(count));
    rest.remove_prefix(taken.size());
    return taken;
  }
  std::string text() { return std::string(bytes(take<int>())); }
};

bool takevariable(Taker content, const int (&counts)[3], LongTexts& texts) {
  const int level = content.take<int>(), v = content.take<int>();
  if (!content.good || level < 1 || level > 3 || v < 1 || v > counts[level - 1]) return false;
  std::vector<VariableText>& list = texts.variables[level - 1];
  if (list.size() < static_cast<std::size_t>(v)) list.resize(static_cast<std::size_t>(v));
  VariableText& variable = list[static_cast<std::size_t>(v) - 1];
  variable.name = content.text();
  variable.label = content.text();
  for (int n = content.take<int>(); n > 0 && content.good; --n) {
    const double value = content.take<double>();
    variable.labels.emplace_back(value, content.text());
  }
  return content.good && content.rest.empty();
}

bool takeids(Taker content, LongTexts& texts) {
  const int level = content.take<int>();
  if (!content.good || level < 2 || level > 3) return false;
  std::vector<std::string>& ids = texts.ids[level - 2];
  ids.clear();
  for (int n = content.take<int>(); n > 0 && content.good; --n) ids.push_back(content.text());
  return content.good && content.rest.empty();
}

}  // namespace

bool LongTexts::any() const {
  return !(variables[0].empty() && variables[1].empty() && variables[2].empty() && ids[0].empty() && ids[1].empty());
}

const VariableText* LongTexts::of(int level, int v) const {
  const std::vector<VariableText>& list = variables[level - 1];
  return v < 1 || static_cast<std::size_t>(v) > list.size() ? nullptr : &list[static_cast<std::size_t>(v) - 1];
}

const std::string* LongTexts::wholeid(int level, const Id& id, bool numeric) const {
  const std::vector<std::string>& list = ids[level - 2];
  if (list.empty()) return nullptr;
  const double number = numeric ? id.number : std::atof(id.text.text);
  const bool known = number >= 1.0 && number <= static_cast<double>(list.size()) && number == std::floor(number);
  return known ? &list[static_cast<std::size_t>(number) - 1] : nullptr;
}

std::string textsection(const LongTexts& texts) {
  std::string entries;
  for (int level = 1; level <= 3; ++level) {
    const std::vector<VariableText>& list = texts.variables[level - 1];
    for (std::size_t v = 0; v < list.size(); ++v) {
      std::string content;
      put(content, level);
      put(content, static_cast<int>(v) + 1);
      puttext(content, list[v].name);
      puttext(content, list[v].label);
      put(content, static_cast<int>(list[v].labels.size()));
      for (const auto& [value, label] : list[v].labels) {
        put(content, value);
        puttext(content, label);
      }
      putentry(entries, variableletter, content);
    }
  }
  for (const int level : {2, 3}) {
    const std::vector<std::string>& ids = texts.ids[level - 2];
    if (ids.empty()) continue;
    std::string content;
    put(content, level);
    put(content, static_cast<int>(ids.size()));
    for (const std::string& id : ids) puttext(content, id);
    putentry(entries, idletter, content);
  }
  std::string section(mark);
  put(section, sectionversion);
  put(section, static_cast<long long>(entries.size()));
  return section + entries;
}

bool beginssection(std::string_view bytes) { return bytes.starts_with(mark); }

bool readsection(std::string_view section, const int (&counts)[3], LongTexts& texts) {
  if (!beginssection(section)) return false;
  Taker all{section.substr(mark.size())};
  static_cast<void>(all.take<int>());
  const auto length = all.take<long long>();
  if (!all.good || length < 0 || static_cast<unsigned long long>(length) != all.rest.size()) return false;
  while (all.good && !all.rest.empty()) {
    const char letter = all.take<char>();
    const Taker content{all.bytes(all.take<long long>())};
    if (!all.good) return false;
    if (letter == variableletter && !takevariable(content, counts, texts)) return false;
    if (letter == idletter && !takeids(content, texts)) return false;
  }
  return all.good;
}

}  // namespace kdr
