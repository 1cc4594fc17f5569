#include "construct/longfile.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <numeric>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "construct/buildlog.h"
#include "construct/levelsource.h"
#include "construct/rawformats.h"
#include "construct/rawvariables.h"
#include "construct/readers/other.h"
#include "construct/template.h"
#include "core/constants.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "formula/factors.h"

namespace kdr {

namespace {

const char* knowntype(const std::string& path) {
  if (const char* type = typeofextension(path); type != nullptr) return type;
  stopwith(
      "The type of %s cannot be told from its name. Known are .csv, .txt, .tsv, .xls, .xlsx, .xlsm, .dbf, .sas7bdat, "
      ".xpt, .sav, .zsav, .por and .dta.\n",
      path.c_str());
}

// The places of the texts of a column by their words, and the last one found, which the next record often has again.
struct TextPlaces {
  std::unordered_map<std::string, int> places;
  int last = -1;
};

void taketext(LongColumn& column, TextPlaces& known, const std::string& field) {
  if (known.last >= 0 && column.texts[static_cast<std::size_t>(known.last)] == field) {
    column.codes.push_back(known.last);
    return;
  }
  std::string text = wholeid(field);
  if (text.empty()) {
    column.codes.push_back(-1);
    return;
  }
  const auto [place, fresh] = known.places.try_emplace(std::move(text), static_cast<int>(column.texts.size()));
  if (fresh) column.texts.push_back(place->first);
  column.codes.push_back(known.last = place->second);
}

std::string uppertext(const std::string& text) {
  std::string key = text;
  for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return key;
}

// Puts the units into the order of their IDs; `unitof` has the unit of each value of the column.
void orderkeys(UnitKeys& keys, std::vector<int>& unitof, bool numeric) {
  std::vector<int> order(keys.ids.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](int a, int b) {
    return compareids(keys.ids[static_cast<std::size_t>(a)], keys.ids[static_cast<std::size_t>(b)], numeric) < 0;
  });
  UnitKeys sorted;
  std::vector<int> rank(order.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    const auto from = static_cast<std::size_t>(order[i]);
    rank[from] = static_cast<int>(i);
    sorted.ids.push_back(keys.ids[from]);
    sorted.whole.push_back(std::move(keys.whole[from]));
  }
  keys.ids = std::move(sorted.ids);
  keys.whole = std::move(sorted.whole);
  for (int& unit : unitof) unit = rank[static_cast<std::size_t>(unit)];
}

UnitKeys numberkeys(const LongColumn& column) {
  UnitKeys keys;
  std::vector<int> unitof;
  std::unordered_map<double, int> places;
  keys.ofrecord.reserve(column.numbers.size());
  LevelSource& source = raw.level[0];
  source.asked = 0;
  double last = missingcode;
  int lastplace = -1;
  for (const double value : column.numbers) {
    ++source.asked;
    if (value != last || lastplace < 0) {
      last = value;
      lastplace = -1;
      if (value != missingcode) {
        const double number = numericid(value);
        const auto [place, fresh] = places.try_emplace(number, static_cast<int>(keys.ids.size()));
        lastplace = place->second;
        if (fresh) {
          Id id{};
          id.number = number;
          id.text = paddedname(formatted("%.0f", number), static_cast<int>(longestid));
          keys.ids.push_back(id);
          keys.whole.emplace_back();
        }
      }
    } else if (lastplace >= 0) {
      static_cast<void>(numericid(value));  // counts fractions record by record
    }
    keys.ofrecord.push_back(lastplace);
  }
  unitof.resize(keys.ids.size());
  std::iota(unitof.begin(), unitof.end(), 0);
  orderkeys(keys, unitof, true);
  for (int& unit : keys.ofrecord)
    if (unit >= 0) unit = unitof[static_cast<std::size_t>(unit)];
  return keys;
}

// What memoryrecord serves.
struct Feed {
  LongUnits units;
  std::vector<MadeColumn> columns[3];
  std::size_t next[3] = {};
};
Feed feed;

void preparememory(int level) {
  raw.level[level].selected = static_cast<int>(feed.columns[level].size());
  feed.next[level] = 0;
}

int memoryrecord(int level, double* values, Id* id3, Id* id2) {
  const LongUnits& units = feed.units;
  const std::size_t at = feed.next[level]++;
  const std::size_t count = level == 0 ? units.order.size() : level == 1 ? units.first2.size() : units.first3.size();
  if (at >= count) return 1;
  const std::size_t record = units.order[level == 0 ? at : level == 1 ? units.first2[at] : units.first3[at]];
  for (const MadeColumn& column : feed.columns[level]) *values++ = column.value(record);
  const UnitKeys& outer = units.outer();
  *id3 = outer.ids[static_cast<std::size_t>(outer.ofrecord[record])];
  if (id2 != nullptr) *id2 = units.level2.ids[static_cast<std::size_t>(units.level2.ofrecord[record])];
  return 0;
}

void closememory(int) {}

constexpr RawReader memoryreader{RawType::other, "other", 5, nullptr, preparememory, memoryrecord, closememory};

}  // namespace

const char* typeofextension(const std::string& path) {
  static constexpr const char* types[][2] = {
      {".csv", "delim"},  {".txt", "delim"}, {".tsv", "delim"},        {".xls", "excel"}, {".xlsx", "excel"},
      {".xlsm", "excel"}, {".dbf", "xbase"}, {".sas7bdat", "sas-win"}, {".xpt", "sasx"},  {".sav", "spss"},
      {".zsav", "spss"},  {".por", "spssp"}, {".dta", "stata"}};
  for (const auto& [extension, type] : types)
    if (path.size() > std::string_view(extension).size() &&
        strcasecmp(path.c_str() + path.size() - std::string_view(extension).size(), extension) == 0)
      return type;
  return nullptr;
}

void openlong(const std::string& path) {
  forgetraw();
  forgetcolumns();
  raw.reader = findreader("other");
  raw.level[0].filename = path + " /" + knowntype(path);
  openraw(0);
}

std::vector<LongColumn> readlong(const std::vector<int>& rows, const std::vector<double>& missing,
                                 const std::vector<int>& ids) {
  LevelSource& source = raw.level[0];
  const std::size_t n = rows.size();
  std::vector<LongColumn> columns(n);
  std::vector<TextPlaces> places(n);
  std::vector<bool> coded(n);
  for (std::size_t c = 0; c < n; ++c) {
    RawVariable& variable = source.vartable[static_cast<std::size_t>(rows[c])];
    columns[c].name = variable.fullname;
    coded[c] = std::find(ids.begin(), ids.end(), rows[c]) == ids.end();
    columns[c].text = variable.text;
    columns[c].why = otherwhytext(0, rows[c]);
    columns[c].label = otherlabel(0, rows[c]);
    if (variable.mark == unwanted) variable.mark = variablemark;
  }
  raw.reader->prepare(0);
  raw.reading = 0;
  std::size_t nrecords = 0;
  for (; ++source.asked, otherrow(0); ++nrecords)
    for (std::size_t c = 0; c < n; ++c) {
      LongColumn& column = columns[c];
      if (column.text) {
        taketext(column, places[c], othertext(0, rows[c]));
        continue;
      }
      double value = othernumber(0, rows[c]);
      if (coded[c] && std::count(missing.begin(), missing.end(), value) > 0) {
        value = missingcode;
        ++column.codedmissing;
      }
      column.numbers.push_back(value);
    }
  if (nrecords == 0) fail(1, source.filename.c_str());
  if (nrecords > static_cast<std::size_t>(INT32_MAX)) stopwith("There are too many level-1 records!\n");
  for (std::size_t c = 0; c < n; ++c) columns[c].labels = othervaluelabels(0, rows[c]);
  closeraw(0);
  source.asked = 0;
  return columns;
}

bool needsnumbers(const LongColumn& column, bool foldcase) {
  std::set<std::string> keys;
  return std::any_of(column.texts.begin(), column.texts.end(), [&](const std::string& text) {
    return text.size() > longestid || (!foldcase && !keys.insert(uppertext(text)).second);
  });
}

UnitKeys unitkeys(const LongColumn& column, bool numeric, bool foldcase) {
  if (!column.text) return numberkeys(column);
  UnitKeys keys;
  keys.numbered = numeric || needsnumbers(column, foldcase);
  std::vector<int> unitof;
  std::unordered_map<std::string, int> known;
  for (const std::string& text : column.texts) {
    const auto [place, fresh] = known.try_emplace(foldcase ? uppertext(text) : text, static_cast<int>(keys.ids.size()));
    unitof.push_back(place->second);
    if (!fresh) continue;
    Id id{};
    id.text = paddedname(text, static_cast<int>(longestid));
    keys.ids.push_back(id);
    keys.whole.push_back(text);
  }
  if (keys.numbered) {
    std::vector<std::pair<std::string, int>> sorted(known.begin(), known.end());
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t i = 0; i < sorted.size(); ++i) {
      Id& id = keys.ids[static_cast<std::size_t>(sorted[i].second)];
      id.number = static_cast<double>(i + 1);
      id.text = paddedname(std::to_string(i + 1), static_cast<int>(longestid));
    }
  }
  orderkeys(keys, unitof, keys.numbered);
  keys.ofrecord.reserve(column.codes.size());
  for (const int code : column.codes) keys.ofrecord.push_back(code < 0 ? -1 : unitof[static_cast<std::size_t>(code)]);
  return keys;
}

void tellstrayid(const LongColumn& column) {
  if (const std::string stray = straytext(column); !stray.empty())
    logahead("The IDs in " + column.name + " are numbers, but " + stray + ": it counts as the ID of a unit.");
}

Name newname(const std::string& fullname, std::vector<std::string>& taken) {
  Name name = paddedname(usablename(fullname));
  const std::string stem = leftname(name);
  const auto istaken = [&](const std::string& text) {
    return std::find(taken.begin(), taken.end(), text) != taken.end();
  };
  for (int n = 2; isintercept(name) || leftname(name).empty() || istaken(leftname(name)); ++n) {
    const std::string digits = std::to_string(n);
    std::string cut = stem.substr(0, 8 - digits.size());
    while (!cut.empty() && (static_cast<unsigned char>(cut.back()) & 0xC0U) == 0x80U && stem.size() > cut.size())
      cut.pop_back();  // no part of a character
    name = paddedname(cut + digits);
  }
  taken.push_back(leftname(name));
  return name;
}

namespace {

// Whether the name of 8 characters tells all there is to tell.
bool plain(const MadeColumn& column) {
  return column.label.empty() && column.labels.empty() &&
         strcasecmp(leftname(column.name).c_str(), column.fullname.c_str()) == 0;
}

LongTexts textsof(const LongUnits& units, const std::vector<MadeColumn> (&columns)[3], bool names) {
  LongTexts texts;
  for (const std::vector<MadeColumn>& list : columns) names = names || !std::all_of(list.begin(), list.end(), plain);
  for (int level = 0; names && level < 3; ++level)
    for (const MadeColumn& column : columns[level])
      texts.variables[level].push_back({column.fullname, column.label, column.labels});
  if (units.level2.numbered) texts.ids[0] = units.level2.whole;
  if (units.level3.numbered) texts.ids[1] = units.level3.whole;
  return texts;
}

}  // namespace

void servecolumns(LongUnits units, std::vector<MadeColumn> (&columns)[3], bool names) {
  feed = Feed{};
  run.mdm.texts = textsof(units, columns, names);
  feed.units = std::move(units);
  for (int level = 0; level < 3; ++level) {
    feed.columns[level] = std::move(columns[level]);
    startnames(level, feed.columns[level].size());
    for (std::size_t v = 0; v < feed.columns[level].size(); ++v) namesof(level)[v + 1] = feed.columns[level][v].name;
  }
  raw.level[0].asked = 0;
  raw.reader = &memoryreader;
}

void forgetcolumns() { feed = Feed{}; }

}  // namespace kdr
