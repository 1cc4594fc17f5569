#include "construct/rawvariables.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "construct/levelsource.h"
#include "core/constants.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr double largestid = 999999999999.0;
constexpr const char* unlikeids = "ID's must be both be character or both numeric!\n";

int namewidth(std::string_view name) {
  return rawis(RawType::systat) && name.find('$') != std::string_view::npos ? 9 : 8;
}

bool samecase(std::string_view a, std::string_view b, std::size_t n) {
  return a.size() >= n && b.size() >= n && strncasecmp(a.data(), b.data(), n) == 0;
}

bool wholename(const RawVariable& variable, std::string_view name) {
  return variable.fullname.size() == name.size() && samecase(variable.fullname, name, name.size());
}

// The one row for which `fits` holds, or the word for none or several.
template <class Fits>
int onlyrow(const LevelSource& source, Fits fits) {
  int found = novariable;
  for (std::size_t row = 0; row < source.vartable.size(); ++row)
    if (!source.vartable[row].hidden && fits(source.vartable[row]))
      found = found == novariable ? static_cast<int>(row) : severalvariables;
  return found;
}

// The row of a variable that is to be marked.
std::size_t rowtomark(int level, const std::string& name, const char* absent) {
  const LevelSource& source = raw.level[level];
  const int row = findvariable(source, name);
  if (row == severalvariables) stopwith(namesalike, name.c_str(), level + 1);
  const bool whole = row >= 0 && charactersof(source.vartable[static_cast<std::size_t>(row)].fullname) >= longestname;
  if (charactersof(name) > longestname && !whole) stopwith("Variable name %s is too long!\n", name.c_str());
  if (row < 0) stopwith(absent, name.c_str());
  if (source.vartable[static_cast<std::size_t>(row)].mark != unwanted)
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

void namevariable(RawVariable& variable, std::string_view name, int width) {
  constexpr std::string_view blanks(" \0", 2);
  name = name.substr(0, name.find_last_not_of(blanks) + 1);
  name.remove_prefix(std::min(name.find_first_not_of(blanks), name.size()));
  variable.fullname = name;
  variable.name = paddedname(name, width);
}

std::string usablename(const std::string& fullname) {
  std::string name = printable(fullname);
  for (char& c : name)
    if (c == '+' || c == '=' || c == '/' || c == ',') c = '_';
  return name;
}

void addlabel(std::string& labels, double value, std::string_view label) {
  constexpr std::size_t most = 60;
  if (labels.ends_with("...")) return;
  labels += labels.empty() ? "" : ", ";
  labels += labels.size() < most ? formatted("%.15g = ", value) + printable(label.substr(0, most)) : "...";
}

int findvariable(const LevelSource& source, std::string_view name) {
  int row = onlyrow(source, [&](const RawVariable& variable) { return wholename(variable, name); });
  if (row == severalvariables)
    row = onlyrow(source, [&](const RawVariable& variable) { return variable.fullname == name; });
  if (row >= 0) return row;
  const int width = namewidth(name);
  const Name wanted = paddedname(name, width);
  const auto same = [&](const Name& other) { return std::memcmp(other.text, wanted.text, sizeof wanted.text) == 0; };
  return onlyrow(source, [&](const RawVariable& variable) {
    const std::string& full = variable.fullname;
    if (same(variable.name) && name.size() <= static_cast<std::size_t>(width)) return true;
    return same(paddedname(full, width)) && samecase(full, name, std::min(full.size(), name.size()));
  });
}

std::string tellingname(const LevelSource& source, int row) {
  const RawVariable& variable = source.vartable[static_cast<std::size_t>(row)];
  for (const std::string& name : {shownname(variable), variable.fullname})
    if (findvariable(source, name) == row) return name;
  return "";
}

void markid(int level, int mark, const std::string& name) {
  raw.level[level].vartable[rowtomark(level, name, "id variable not found!\n")].mark = mark;
}

void markvariable(int level, const std::string& name) {
  LevelSource& source = raw.level[level];
  const std::size_t row = rowtomark(level, name, "Variable %s not found!\n");
  if (source.vartable[row].text) {
    const std::string why = raw.reader != nullptr && raw.reader->whytext != nullptr
                                ? raw.reader->whytext(level, static_cast<int>(row))
                                : "";
    stopwith("mdm variables must be numeric!\nVariable %s of the level-%d file is a character variable%s%s.\n",
             tellingname(source, static_cast<int>(row)).c_str(), level + 1, why.empty() ? "" : ": ", why.c_str());
  }
  const bool late = !source.chosen.empty() && source.chosen[source.chosen.size() - 1] > static_cast<int>(row);
  if (late && !rawis(RawType::systat))
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

bool agreeonids() {
  bool anytext = false;
  bool anynumber = false;
  bool flexible = true;  // the numeric columns can be texts
  for (int level = 0; level < 3; ++level)
    for (const RawVariable& variable : raw.level[level].vartable) {
      if (variable.mark != level3idmark && variable.mark != level2idmark) continue;
      anytext = anytext || variable.text;
      anynumber = anynumber || !variable.text;
      flexible = flexible && (variable.text || (raw.reader->canbetext != nullptr && raw.reader->canbetext(level)));
    }
  if (anytext && anynumber) {
    if (!flexible) return false;
    for (int level = 0; level < 3; ++level)
      for (const int mark : {level3idmark, level2idmark}) {
        const int row = idrow(raw.level[level], mark);
        if (row >= 0 && !raw.level[level].vartable[static_cast<std::size_t>(row)].text) raw.reader->astext(level, row);
      }
  }
  if (anytext || anynumber) run.mdm.numericids = !anytext;
  return true;
}

void settleidkind() {
  if (!agreeonids()) stopwith(unlikeids);
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

void refusezeros(std::string_view text) {
  if (text.find('\0') != text.npos) refuseid("An ID has a zero byte in it.\n");
}

std::string wholeid(std::string_view text) {
  constexpr std::size_t longest = 1000;
  text = text.substr(0, text.find_last_not_of(std::string_view(" \0", 2)) + 1);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  refusezeros(text);
  if (text.size() > longest) refuseid("An ID has more than 1000 characters.\n");
  return std::string(text);
}

Name textid(std::string_view text) {
  text = text.substr(0, text.find_last_not_of(std::string_view(" \0", 2)) + 1);
  if (text.size() > longestid) refuseid("Your ID variable is longer than 12 characters.\n");
  refusezeros(text);
  return paddedname(text, static_cast<int>(longestid));
}

}  // namespace kdr
