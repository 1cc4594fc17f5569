#include "construct/onefile.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <numeric>
#include <set>
#include <unordered_map>
#include <vector>

#include "construct/fileclashes.h"
#include "construct/levelsource.h"
#include "construct/readers/other.h"
#include "construct/template.h"
#include "core/constants.h"
#include "core/formatted.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

// The text IDs of a column, whatever their length. Texts that differ by nothing but case are one ID.
struct WholeIds {
  std::unordered_map<std::string, int> codes;  // of the texts in upper case
  std::vector<std::string> texts;              // [code]: as the file has it first
  std::vector<int> ofrecord;                   // [record]
  bool longer = false;                         // one has more than 12 characters
  std::vector<std::string> numbered;           // [number - 1], where the column is numbered
};

// The file in memory, and the rows that each level has of it.
struct OneFile {
  std::vector<int> rows;                    // [nvar]: the variable's row of the file's table
  std::vector<double> values;               // [record][nvar]
  std::vector<Id> id3, id2;                 // [record]
  WholeIds whole[2];                        // of level 3 and level 2
  std::vector<std::size_t> order;           // of the records, by their IDs
  std::vector<std::size_t> first2, first3;  // places in `order` where a unit begins
  std::vector<int> level;                   // [nvar]: 0 to 2
  std::set<int> kept;                       // rows of variables that were asked to stay at level 1
  std::size_t next[3] = {};
  std::string keyfile;  // the key table that is due
};

OneFile one;

// The type of raw data that the name tells.
const char* knowntype(const std::string& path) {
  if (const char* type = typeofextension(path); type != nullptr) return type;
  stopwith(
      "The type of %s cannot be told from its name. Known are .csv, .txt, .tsv, .xls, .xlsx, .xlsm, .dbf, .sas7bdat, "
      ".xpt, .sav, .zsav, .por and .dta.\n",
      path.c_str());
}

bool hasid(const Id& id) {
  if (run.mdm.numericids) return id.number != missingcode;
  return std::string_view(id.text.text).find_first_not_of(' ') != std::string_view::npos;
}

void keepid(WholeIds& ids, const std::string& text) {
  std::string key = text;
  for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const auto [place, fresh] = ids.codes.try_emplace(std::move(key), static_cast<int>(ids.texts.size()));
  if (fresh) ids.texts.push_back(text);
  ids.ofrecord.push_back(place->second);
  ids.longer = ids.longer || text.size() > longestid;
}

// Puts numbers in the place of the text IDs of a column where one of them is too long for the MDM file, or where the
// other column has numbers.
void numberids(WholeIds& ids, std::vector<Id>& column, int level) {
  if (!ids.longer && (!run.mdm.numericids || ids.texts.empty())) return;
  std::vector<std::pair<std::string, int>> sorted(ids.codes.begin(), ids.codes.end());
  std::sort(sorted.begin(), sorted.end());
  std::vector<int> number(sorted.size());
  for (const auto& [key, code] : sorted) {
    ids.numbered.push_back(ids.texts[static_cast<std::size_t>(code)]);
    number[static_cast<std::size_t>(code)] = static_cast<int>(ids.numbered.size());
  }
  for (std::size_t i = 0; i < column.size(); ++i) {
    column[i].number = number[static_cast<std::size_t>(ids.ofrecord[i])];
    column[i].text = paddedname(formatted("%.0f", column[i].number), longestid);
  }
  std::printf("Level-%d IDs %s: the units are numbered from 1 to %zu.\n", level,
              ids.longer ? "of more than 12 characters" : "are texts where the others are numbers", sorted.size());
}

// Reads all records that have their IDs, with the codes of `missing` as missing values.
void readall(LevelSource& source, const std::vector<double>& missing) {
  const std::size_t nvar = one.rows.size();
  std::vector<double> record(nvar);
  std::vector<long long> codes(nvar);
  Id id3{};
  Id id2{};
  long long withoutid = 0;
  while (readrecord(0, record.data(), &id3, &id2) == 0) {
    if (!hasid(id3) || !hasid(id2)) {
      ++withoutid;
      continue;
    }
    for (std::size_t v = 0; v < nvar; ++v)
      if (std::count(missing.begin(), missing.end(), record[v]) > 0) {
        record[v] = missingcode;
        ++codes[v];
      }
    one.id3.push_back(id3);
    one.id2.push_back(id2);
    for (const int which : {0, 1})
      if (!raw.wholeid[which].empty()) keepid(one.whole[which], raw.wholeid[which]);
    one.values.insert(one.values.end(), record.begin(), record.end());
  }
  if (one.id3.empty()) fail(1, source.filename.c_str());
  numberids(one.whole[0], one.id3, run.mdm.twolevel() ? 2 : 3);
  numberids(one.whole[1], one.id2, 2);
  if (run.mdm.twolevel()) one.id2 = one.id3;
  if (withoutid > 0)
    std::printf("%lld records of %s have no ID. They were left out.\n", withoutid, source.filename.c_str());
  for (std::size_t v = 0; v < nvar; ++v)
    if (codes[v] > 0)
      std::printf("%s: %lld values count as missing.\n",
                  printable(source.vartable[static_cast<std::size_t>(one.rows[v])].fullname).c_str(), codes[v]);
}

int compare(std::size_t a, std::size_t b) {
  const int order = compareids(one.id3[a], one.id3[b], run.mdm.numericids);
  return order != 0 ? order : compareids(one.id2[a], one.id2[b], run.mdm.numericids);
}

void sortrecords(const LevelSource& source) {
  one.order.resize(one.id3.size());
  std::iota(one.order.begin(), one.order.end(), std::size_t{0});
  const auto before = [](std::size_t a, std::size_t b) { return compare(a, b) < 0; };
  if (!std::is_sorted(one.order.begin(), one.order.end(), before)) {
    std::stable_sort(one.order.begin(), one.order.end(), before);
    std::printf("%s is not in the order of its IDs. Its %zu records were sorted in memory.\n", source.filename.c_str(),
                one.order.size());
  }
  for (std::size_t i = 0; i < one.order.size(); ++i) {
    if (i == 0 || compare(one.order[i - 1], one.order[i]) != 0) one.first2.push_back(i);
    if (i == 0 || compareids(one.id3[one.order[i - 1]], one.id3[one.order[i]], run.mdm.numericids) != 0)
      one.first3.push_back(i);
  }
}

double valueat(std::size_t place, std::size_t v) { return one.values[one.order[place] * one.rows.size() + v]; }

// In how many of the units that begin at these places the variable has more than one value. `gaps` counts the others in
// which it is missing.
std::size_t varyingunits(const std::vector<std::size_t>& first, std::size_t v, long long& gaps) {
  std::size_t varying = 0;
  gaps = 0;
  for (std::size_t unit = 0; unit < first.size(); ++unit) {
    const std::size_t end = unit + 1 < first.size() ? first[unit + 1] : one.order.size();
    const double value = valueat(first[unit], v);
    std::size_t i = first[unit] + 1;
    while (i < end && valueat(i, v) == value) ++i;
    varying += i < end;
    gaps += i == end && value == missingcode;
  }
  return varying;
}

// Says so when the variable varies within a twentieth of the units or less, as slips of the data make it.
void tellslips(const std::string& name, std::size_t varying, std::size_t units, int level) {
  if (varying > 0 && varying * 20 <= units)
    std::printf("%s varies within %zu of %zu level-%d units, and is constant in all others.\n", name.c_str(), varying,
                units, level);
}

// The highest level at which the variable is constant and never missing.
int levelof(const std::string& name, std::size_t v) {
  if (one.kept.contains(one.rows[v])) return 0;
  long long gaps = 0;
  const std::size_t varying3 = varyingunits(one.first3, v, gaps);
  if (varying3 == 0 && gaps == 0) return run.mdm.twolevel() ? 1 : 2;
  if (!run.mdm.twolevel()) tellslips(name, varying3, one.first3.size(), 3);
  if (const std::size_t varying2 = varyingunits(one.first2, v, gaps); varying2 > 0) {
    if (varying3 * 20 > one.first3.size()) tellslips(name, varying2, one.first2.size(), 2);
    return 0;
  }
  if (gaps == 0) return 1;
  std::printf("%s does not vary within level-2 units, but is missing in %lld of them: it stays at level 1.\n",
              name.c_str(), gaps);
  return 0;
}

// The first 8 characters of a name, with a number at their end where another variable has them already.
Name newname(const std::string& fullname, std::set<std::string>& taken) {
  Name name = paddedname(usablename(fullname));
  const std::string stem = leftname(name);
  for (int n = 2; isintercept(name) || leftname(name).empty() || !taken.insert(leftname(name)).second; ++n) {
    const std::string digits = std::to_string(n);
    std::string cut = stem.substr(0, 8 - digits.size());
    while (!cut.empty() && (static_cast<unsigned char>(cut.back()) & 0xC0U) == 0x80U && stem.size() > cut.size())
      cut.pop_back();  // no part of a character
    name = paddedname(cut + digits);
  }
  return name;
}

// The operations of a reader whose records are in memory.
void preparememory(int level) {
  raw.level[level].selected = static_cast<int>(raw.level[level].chosen.size());
  one.next[level] = 0;
}

int memoryrecord(int level, double* values, Id* id3, Id* id2) {
  const std::size_t at = one.next[level]++;
  const std::size_t count = level == 0 ? one.order.size() : level == 1 ? one.first2.size() : one.first3.size();
  if (at >= count) return 1;
  const std::size_t place = level == 0 ? at : level == 1 ? one.first2[at] : one.first3[at];
  for (std::size_t v = 0; v < one.rows.size(); ++v)
    if (one.level[v] == level) *values++ = valueat(place, v);
  *id3 = one.id3[one.order[place]];
  if (id2 != nullptr) *id2 = one.id2[one.order[place]];
  return 0;
}

void closememory(int) {}

constexpr RawReader memoryreader{RawType::other, "other", 5, nullptr, preparememory, memoryrecord, closememory};

// Marks the IDs and every numeric variable but them.
void markall(LevelSource& source, const OneFileJob& job) {
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
    if (variable.text) {
      left += (left.empty() ? "" : ", ") + variable.fullname;
      if (const std::string why = otherwhytext(0, static_cast<int>(row)); !why.empty()) left += " (" + why + ")";
      continue;
    }
    variable.mark = variablemark;
    one.rows.push_back(static_cast<int>(row));
  }
  if (nameless > 0) std::printf("Columns without a name, left out: %d.\n", nameless);
  for (const std::string& name : job.level1) {
    const int row = findvariable(source, name);
    if (row == severalvariables) stopwith(namesalike, name.c_str(), 1);
    if (source.vartable[static_cast<std::size_t>(row)].mark != variablemark)
      stopwith("%s cannot be a level-1 variable: it is an ID or a column of texts.\n", name.c_str());
    one.kept.insert(row);
  }
  if (!left.empty()) std::printf("Left out, since they are no numbers: %s.\n", printable(left).c_str());
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
  std::printf("The numbers and their IDs stand in %s.\n", one.keyfile.c_str());
}

// A field of delimited text.
std::string quoted(const std::string& text) {
  std::string field = "\"";
  for (const char c : text) field.append(c == '"' ? 2 : 1, c);
  return field + "\"";
}

// Tells level `level` its variables.
void telllevel(int level, const std::vector<Name>& names) {
  LevelSource& source = raw.level[level];
  std::vector<std::size_t> mine;
  for (std::size_t v = 0; v < one.rows.size(); ++v)
    if (one.level[v] == level) mine.push_back(v);
  source.chosen.reset(mine.size());
  startnames(level, mine.size());
  for (std::size_t i = 0; i < mine.size(); ++i) {
    source.chosen[i] = one.rows[mine[i]];
    namesof(level)[i + 1] = names[mine[i]];
  }
  if (level == 2 && run.mdm.twolevel()) return;
  std::printf("Level-%d variables:", level + 1);
  for (const std::size_t v : mine) std::printf(" %s", leftname(names[v]).c_str());
  std::printf("%s\n", mine.empty() ? " none" : "");
}

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

void takeonefile(const OneFileJob& job) {
  const std::string& path = job.path;
  forgetraw();
  one = OneFile{};
  MdmData& mdm = run.mdm;
  mdm.mdmtype = job.level3.empty() ? MdmType::twolevel : MdmType::ordinary;
  mdm.deletednow = false;
  LevelSource& source = raw.level[0];
  raw.reader = findreader("other");
  source.filename = path + " /" + knowntype(path);
  openraw(0);
  raw.wholeids = true;
  markall(source, job);
  source.chosen.reset(one.rows.size());
  std::copy(one.rows.begin(), one.rows.end(), source.chosen.begin());
  raw.reader->prepare(0);
  readall(source, job.missing);
  closeraw(0);
  sortrecords(source);

  std::set<std::string> taken{"RANDOM"};  // the word for a random effect
  std::vector<Name> names;
  mdm.l1missing = false;
  for (std::size_t v = 0; v < one.rows.size(); ++v) {
    const std::string& fullname = source.vartable[static_cast<std::size_t>(one.rows[v])].fullname;
    one.level.push_back(levelof(printable(fullname), v));
    names.push_back(newname(fullname, taken));
    if (!samename(names[v], paddedname(fullname)) || charactersof(fullname) > 8)
      std::printf("Variable %s has the name %s in the MDM file.\n", printable(fullname).c_str(),
                  leftname(names[v]).c_str());
    for (std::size_t i = 0; one.level[v] == 0 && i < one.order.size(); ++i)
      mdm.l1missing = mdm.l1missing || valueat(i, v) == missingcode;
  }
  if (std::count(one.level.begin(), one.level.end(), 0) == 0)
    stopwith("%s has no numeric variable that varies within level-2 units.\n", path.c_str());
  source.asked = 0;
  raw.level[1] = LevelSource{};
  for (const int level : {1, 2}) {
    raw.level[level].filename = source.filename;
    raw.level[level].filetype = source.filetype;
    raw.level[level].vartable = source.vartable;
  }
  if (!mdm.twolevel()) raw.level[2].vartable[static_cast<std::size_t>(idrow(source, level2idmark))].mark = unwanted;
  raw.reader = &memoryreader;
  for (int level = 0; level < 3; ++level) telllevel(level, names);
  if (run.files.mdmfile.empty()) {
    const std::size_t base = path.rfind('/') + 1;
    run.files.mdmfile = path.substr(base, path.rfind('.') - base) + ".mdm";
  }
  if (one.whole[0].numbered.size() + one.whole[1].numbered.size() > 0) namekeys();
  writetemplate(false);
}

void writekeys() {
  if (one.keyfile.empty()) return;
  ResultFile file;
  opentext(file, one.keyfile);
  std::fprintf(file.stream, "%s\n", keyhead);
  for (const int which : {0, 1}) {
    const std::vector<std::string>& ids = one.whole[which].numbered;
    const int level = run.mdm.twolevel() ? 2 : 3 - which;
    for (std::size_t i = 0; i < ids.size(); ++i)
      std::fprintf(file.stream, "%d,%zu,%s\n", level, i + 1, quoted(ids[i]).c_str());
  }
  finishresult(file);
}

}  // namespace kdr
