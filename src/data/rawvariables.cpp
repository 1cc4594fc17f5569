#include "data/rawvariables.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "data/levelsource.h"
#include "driver/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr double largestid = 999999999999.0;
constexpr const char* unlikeids = "ID's must be both be character or both numeric!\n";

int namewidth(std::string_view name) { return rawis(rawsystat) && name.find('$') != std::string_view::npos ? 9 : 8; }

// The row of a variable that is to be marked.
std::size_t rowtomark(int level, const std::string& name, const char* absent) {
  if (charactersof(name) > longestname) stopwith("Variable name %s is too long!\n", name.c_str());
  const LevelSource& source = raw.level[level];
  const int row = findvariable(source, name);
  if (row < 0) stopwith(absent, name.c_str());
  const RawVariable& variable = source.vartable[static_cast<std::size_t>(row)];
  if (sharesname(source, variable)) stopwith(namesalike, name.c_str(), level + 1);
  if (variable.mark != unwanted)
    stopwith("Variable %s of the level-%d file is chosen more than once!\n", name.c_str(), level + 1);
  return static_cast<std::size_t>(row);
}

// The words on an ID of the record in hand, and the place where it stands.
[[noreturn]] void refuseid(const char* words) {
  const LevelSource& source = raw.level[raw.reading];
  stopwith("%sIt stands in record %lld of the level-%d file %s.\n", words, source.asked, raw.reading + 1,
           source.filename.c_str());
}

}  // namespace

int findvariable(const LevelSource& source, std::string_view name) {
  const Name wanted = paddedname(name, namewidth(name));
  for (std::size_t row = 0; row < source.vartable.size(); ++row) {
    const RawVariable& variable = source.vartable[row];
    if (!variable.hidden && std::memcmp(variable.name.text, wanted.text, sizeof wanted.text) == 0)
      return static_cast<int>(row);
  }
  return -1;
}

bool sharesname(const LevelSource& source, const RawVariable& variable) {
  return std::any_of(source.vartable.begin(), source.vartable.end(), [&](const RawVariable& other) {
    return &other != &variable && !other.hidden &&
           std::memcmp(other.name.text, variable.name.text, sizeof variable.name.text) == 0;
  });
}

void markid(int level, int mark, const std::string& name) {
  raw.level[level].vartable[rowtomark(level, name, "id variable not found!\n")].mark = mark;
}

void markvariable(int level, const std::string& name) {
  LevelSource& source = raw.level[level];
  const std::size_t row = rowtomark(level, name, "Variable %s not found!\n");
  if (source.vartable[row].text)
    stopwith("mdm variables must be numeric!\nVariable %s of the level-%d file is a character variable.\n",
             shownname(source.vartable[row]).c_str(), level + 1);
  const bool late = !source.chosen.empty() && source.chosen[source.chosen.size() - 1] > static_cast<int>(row);
  if (late && !rawis(rawsystat))
    stopwith("The level-%d variables must be listed in the order of the raw file: %s comes too late!\n", level + 1,
             name.c_str());
  source.vartable[row].mark = variablemark;
  source.chosen.resize(source.chosen.size() + 1);
  source.chosen[source.chosen.size() - 1] = static_cast<int>(row);
}

void clearmarks(int level) {
  for (RawVariable& variable : raw.level[level].vartable) variable.mark = unwanted;
  raw.level[level].chosen.reset(0);
}

void settleidkind() {
  bool any = false;
  for (const LevelSource& source : raw.level)
    for (const int mark : {level3idmark, level2idmark}) {
      const int row = idrow(source, mark);
      if (row < 0) continue;
      const bool numeric = !source.vartable[static_cast<std::size_t>(row)].text;
      if (any && numeric != run.mdm.numericids) stopwith(unlikeids);
      run.mdm.numericids = numeric;
      any = true;
    }
}

int idrow(const LevelSource& source, int mark) {
  for (std::size_t row = 0; row < source.vartable.size(); ++row)
    if (source.vartable[row].mark == mark) return static_cast<int>(row);
  return -1;
}

std::string shownname(const RawVariable& variable) {
  const std::string text = variable.name.text;
  const std::size_t first = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

void settlevariables(int level) {
  LevelSource& source = raw.level[level];
  source.selected = static_cast<int>(source.chosen.size());
  source.row3 = idrow(source, level3idmark);
  source.row2 = idrow(source, level2idmark);
}

double numericid(double value, bool truncated) {
  if (value > largestid) refuseid("ID must be no more than 12 digits long\n");
  constexpr double rounding = 1e-6;
  if (value != missingcode && std::abs(value - std::round(value)) > rounding) {
    LevelSource& source = raw.level[raw.reading];
    if (source.fractions++ == 0) {
      source.firstfraction = value;
      source.fractionrecord = source.asked;
    }
  }
  return truncated ? std::trunc(value) : std::floor(value + 0.2);
}

Name textid(std::string_view text) {
  if (text.size() > longestid &&
      text.find_first_not_of(std::string_view(" \0", 2), longestid) != std::string_view::npos)
    refuseid("Your ID variable is longer than 12 characters.\n");
  return paddedname(text, static_cast<int>(longestid));
}

}  // namespace kdr
