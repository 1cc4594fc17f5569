#include "construct/onefile.h"

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "construct/buildlog.h"
#include "construct/fileclashes.h"
#include "construct/levelsource.h"
#include "construct/rawformats.h"
#include "construct/rawvariables.h"
#include "construct/readers/other.h"
#include "construct/template.h"
#include "core/constants.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "formula/factors.h"

namespace kdr {

namespace {

// What takeonefile keeps for the end of the construction.
struct OneFile {
  std::vector<std::string> numbered[2];  // of level 3 and level 2: [number - 1], where the column is numbered
  std::string keyfile;                   // the key table that is due
};

OneFile one;

// The units of an ID column. Puts numbers in the place of the text IDs where one of them is too long for the MDM file,
// or where the other column has numbers.
UnitKeys keysof(const LongColumn& column, int level) {
  const bool longer = column.text && needsnumbers(column, true);
  tellstrayid(column);
  UnitKeys keys = unitkeys(column, run.mdm.numericids, true);
  if (!keys.numbered) return keys;
  one.numbered[3 - level] = keys.whole;
  logahead(formatted("Level-%d IDs %s: the units are numbered from 1 to %zu.", level,
                     longer ? "of more than 12 characters" : "are texts where the others are numbers",
                     keys.ids.size()));
  return keys;
}

// The records that have their IDs, in the order of them.
LongUnits unitsof(const LevelSource& source, const LongColumn* id3, const LongColumn& id2) {
  LongUnits units;
  units.levels = id3 == nullptr ? 2 : 3;
  if (id3 != nullptr) units.level3 = keysof(*id3, 3);
  units.level2 = keysof(id2, 2);
  sortunits(units, {});
  const std::size_t nrecords = units.level2.ofrecord.size(), n = units.order.size();
  if (n == 0) fail(1, source.filename.c_str());
  if (n < nrecords)
    logahead(formatted("%zu records of %s have no ID. They were left out.", nrecords - n, source.filename.c_str()));
  return units;
}

// Marks the IDs and every numeric variable but them. Gives back the rows of the variables, and in `kept` those that are
// to stay at level 1.
std::vector<int> markall(LevelSource& source, const OneFileJob& job, std::set<int>& kept) {
  std::vector<int> rows;
  std::vector<std::string> named = job.level1;
  named.push_back(job.level2);
  if (!run.mdm.twolevel()) named.push_back(job.level3);
  for (const std::string& name : named)
    if (findvariable(source, name) == novariable) {
      std::string columns;
      for (const RawVariable& variable : source.vartable)
        if (!variable.hidden) columns += " " + variable.fullname;
      stopwith("%s has no column %s. Its columns are:%s\n", source.filename.c_str(), name.c_str(),
               printable(columns).c_str());
    }
  markid(0, level3idmark, run.mdm.twolevel() ? job.level2 : job.level3);
  if (!run.mdm.twolevel()) markid(0, level2idmark, job.level2);
  if (!agreeonids()) run.mdm.numericids = true;  // texts get numbers
  std::string left;
  int nameless = 0;
  for (std::size_t row = 0; row < source.vartable.size(); ++row) {
    RawVariable& variable = source.vartable[row];
    if (variable.mark != unwanted || variable.hidden) continue;
    if (variable.fullname.empty()) {
      ++nameless;
      continue;
    }
    if (variable.text && !job.factors) {
      left += (left.empty() ? "" : ", ") + variable.fullname;
      if (const std::string why = otherwhytext(0, static_cast<int>(row)); !why.empty()) left += " (" + why + ")";
      continue;
    }
    if (!variable.text) variable.mark = variablemark;
    rows.push_back(static_cast<int>(row));
  }
  if (nameless > 0) logahead(formatted("Columns without a name, left out: %d.", nameless));
  for (const std::string& name : job.level1) {
    const int row = findvariable(source, name);
    if (row == severalvariables) stopwith(namesalike, name.c_str(), 1);
    if (source.vartable[static_cast<std::size_t>(row)].mark != variablemark)
      stopwith("%s cannot be a level-1 variable: it is an ID or a column of texts.\n", name.c_str());
    kept.insert(row);
  }
  if (!left.empty()) logahead("Left out, since they are no numbers: " + left + ".");
  return rows;
}

constexpr const char* keyhead = "level,number,id";

// Settles the name of the key table. One that is there already may be written over, no other file.
void namekeys() {
  const std::string& mdm = run.files.mdmfile;
  const std::size_t dot = mdm.rfind('.');
  const bool extension = dot != std::string::npos && dot > mdm.rfind('/') + 1;
  one.keyfile = mdm.substr(0, extension ? dot : mdm.size()) + ".ids.csv";
  if (overlong(one.keyfile)) stopwith("The path is too long: %s\n", one.keyfile.c_str());
  if (std::unique_ptr<std::FILE, int (*)(std::FILE*)> old(std::fopen(one.keyfile.c_str(), "rb"), std::fclose); old) {
    char head[std::string_view(keyhead).size()];
    const std::size_t got = std::fread(head, 1, sizeof head, old.get());
    if (std::string_view(head, got) != keyhead)
      stopwith("The file %s is no key table of IDs. It would be lost: rename it, or give the MDM file another name.\n",
               one.keyfile.c_str());
  }
  refuseunwritable(one.keyfile);
  logahead("The numbers and their IDs stand in " + one.keyfile + ".");
}

// A field of delimited text.
std::string quoted(const std::string& text) {
  std::string field = "\"";
  for (const char c : text) field.append(c == '"' ? 2 : 1, c);
  return field + "\"";
}

// Puts, in the place of each column of names, an indicator of each of its values but the first. Texts that are no names
// are left out.
void splitfactors(LevelSource& source, std::vector<LongColumn>& columns, std::vector<int>& rows) {
  constexpr std::size_t most = 200;
  std::vector<LongColumn> split;
  std::vector<int> splitrows;
  for (std::size_t v = 0; v < columns.size(); ++v) {
    const std::string name = printable(columns[v].name);
    const std::string stray = straytext(columns[v]);
    if (!stray.empty() || !holdsnames(columns[v])) {
      if (!stray.empty()) logahead("Left out, since it is neither numbers nor names: " + name + " (" + stray + ").");
      if (!stray.empty()) continue;
      splitrows.push_back(rows[v]);
      split.push_back(std::move(columns[v]));
      continue;
    }
    const Factor factor = factorof(columns[v], {});
    if (factor.levels.size() < 2 || factor.levels.size() > most) {
      logahead(formatted("Left out, since it has %zu different values: %s.", factor.levels.size(), name.c_str()));
      continue;
    }
    std::string others;
    for (std::size_t k = 1; k < factor.levels.size(); ++k) {
      others += (k == 1 ? "" : ", ") + factor.levels[k];
      LongColumn indicator;
      indicator.name = columns[v].name + factor.levels[k];
      indicator.label = columns[v].label;
      for (const int code : factor.codes)
        indicator.numbers.push_back(code < 0 ? missingcode : code == static_cast<int>(k) ? 1.0 : 0.0);
      splitrows.push_back(rows[v]);
      split.push_back(std::move(indicator));
    }
    logahead(name + " is a factor: " + others + " against " + factor.levels[0] + ".");
    source.vartable[static_cast<std::size_t>(rows[v])].labels.clear();  // they don't count by their codes
  }
  columns = std::move(split);
  rows = std::move(splitrows);
}

// Tells the console the variables of level `level`, and the template the rows of the file that they are.
void telllevel(int level, const std::vector<MadeColumn>& columns, const std::vector<int>& rows) {
  LevelSource& source = raw.level[level];
  source.chosen.reset(rows.size());
  std::copy(rows.begin(), rows.end(), source.chosen.begin());
  std::string words = formatted("Level-%d variables:", level + 1) + (columns.empty() ? " none" : "");
  for (const MadeColumn& column : columns) words.append(" ").append(leftname(column.name));
  logahead(words);
}

// The other levels' sources, for the template, are the same file.
void copysources(LevelSource& source) {
  raw.level[1] = LevelSource{};
  for (const int level : {1, 2}) {
    raw.level[level].filename = source.filename;
    raw.level[level].filetype = source.filetype;
    raw.level[level].vartable = source.vartable;
  }
  if (!run.mdm.twolevel()) raw.level[2].vartable[static_cast<std::size_t>(idrow(source, level2idmark))].mark = unwanted;
}

}  // namespace

void takeonefile(const OneFileJob& job) {
  const std::string& path = job.path;
  one = OneFile{};
  MdmData& mdm = run.mdm;
  mdm.mdmtype = job.level3.empty() ? MdmType::twolevel : MdmType::ordinary;
  mdm.deletednow = false;
  openlong(path);
  LevelSource& source = raw.level[0];
  std::set<int> kept;
  std::vector<int> rows = markall(source, job, kept);
  const std::size_t count = rows.size();
  rows.push_back(idrow(source, level3idmark));
  if (!mdm.twolevel()) rows.push_back(idrow(source, level2idmark));
  std::vector<LongColumn> columns =
      readlong(rows, job.missing, {rows.begin() + static_cast<std::ptrdiff_t>(count), rows.end()});
  LongUnits units = unitsof(source, mdm.twolevel() ? nullptr : &columns[count], columns.back());
  columns.resize(count);
  for (const LongColumn& column : columns)
    if (column.codedmissing > 0)
      logahead(column.name + formatted(": %lld values count as missing.", column.codedmissing));
  if (!units.sorted)
    logahead(formatted("%s is not in the order of its IDs. Its %zu records were sorted in memory.",
                       source.filename.c_str(), units.order.size()));

  std::vector<std::string> taken{"RANDOM"};  // the word for a random effect
  std::vector<MadeColumn> made[3];
  std::vector<int> rowsof[3];
  mdm.l1missing = false;
  if (job.factors) splitfactors(source, columns, rows);
  for (std::size_t v = 0; v < columns.size(); ++v) {
    const std::string& fullname = columns[v].name;
    const auto values = std::make_shared<std::vector<double>>(std::move(columns[v].numbers));
    const auto value = [values](std::size_t record) { return (*values)[record]; };
    const int level = kept.contains(rows[v]) ? 0 : levelof(printable(fullname), units, value, logahead);
    const Name name = newname(fullname, taken);
    if (!samename(name, paddedname(fullname)) || charactersof(fullname) > 8)
      logahead("Variable " + fullname + " has the name " + leftname(name) + " in the MDM file.");
    made[level].push_back({name, fullname, columns[v].label, columns[v].labels, value});
    rowsof[level].push_back(rows[v]);
    if (level == 0)
      mdm.l1missing = mdm.l1missing || std::any_of(units.order.begin(), units.order.end(), [&](std::uint32_t record) {
                        return (*values)[record] == missingcode;
                      });
  }
  if (made[0].empty()) stopwith("%s has no numeric variable that varies within level-2 units.\n", path.c_str());
  copysources(source);
  for (int level = 0; level < units.levels; ++level) telllevel(level, made[level], rowsof[level]);
  servecolumns(std::move(units), made, false);
  if (run.files.mdmfile.empty()) {
    const std::size_t base = path.rfind('/') + 1;
    run.files.mdmfile = path.substr(base, path.rfind('.') - base) + ".mdm";
  }
  if (one.numbered[0].size() + one.numbered[1].size() > 0) namekeys();
  if (!job.factors) writetemplate(false);
}

void writekeys() {
  if (one.keyfile.empty()) return;
  ResultFile file;
  opentext(file, one.keyfile);
  std::fprintf(file.stream, "%s\n", keyhead);
  for (const int level : {3, 2}) {
    const std::vector<std::string>& ids = one.numbered[3 - level];
    for (std::size_t i = 0; i < ids.size(); ++i)
      std::fprintf(file.stream, "%d,%zu,%s\n", level, i + 1, quoted(ids[i]).c_str());
  }
  finishresult(file);
}

}  // namespace kdr
