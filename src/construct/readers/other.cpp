#include "construct/readers/other.h"

#include <strings.h>

#include <cmath>

#include "construct/buildlog.h"
#include "construct/rawvariables.h"
#include "construct/readers/st.h"
#include "core/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

struct FileType {
  const char* word;
  const char* description;
  int format;
};

constexpr int number(StFormat format) { return static_cast<int>(format); }

constexpr FileType filetypes[] = {
    {"sas-win", "SAS Data File- Versions 7/8/9", number(StFormat::sas)},
    {"sas1", "SAS V6 Data File- HP,IBM,SGI & SUN Unix", 20},
    {"excel", "Excel", number(StFormat::excel)},
    {"spss", "SPSS Data File", number(StFormat::spss)},
    {"123", "1-2-3", 0},
    {"Access", "Access", 23},
    {"delim", "ASCII File - Delimited", number(StFormat::delimited)},
    {"stfixed", "ASCII File - Fixed Format (S/T Schema)", 46},
    {"fixed-all", "ASCII File - Fixed Format (All Schemas)", 47},
    {"xbase", "dBASE", number(StFormat::dbase)},
    {"epi", "Epi Info", 32},
    {"gauss", "Gauss", 9},
    {"gauss96", "Gauss - Unix", 9},
    {"html", "HTML Table", 31},
    {"jmp", "JMP", 35},
    {"jpj", "LIMDEP for Windows", 33},
    {"matlab", "Matlab Matrix", 29},
    {"mineset", "Mineset", 34},
    {"minitab", "Minitab", 37},
    {"odbc", "ODBC Data Source", 24},
    {"osiris", "OSIRIS", 36},
    {"paradox", "Paradox", 10},
    {"quattro", "Quattro Pro", 11},
    {"splus", "S-Plus", 17},
    {"sas2", "SAS V6 Data File - Windows/OS2", 20},
    {"sas4", "SAS V6 Data File - Dec Unix", 20},
    {"sas-sun", "SAS(Sun) Data File- Versions 7/8/9", number(StFormat::sas)},
    {"sas-linux", "SAS(Alpha) Data File- Versions 7/8/9", number(StFormat::sas)},
    {"sasx", "SAS Transport File", number(StFormat::sastransport)},
    {"sasp", "SAS Program & Data File", 40},
    {"spss-hl", "SPSS Data File - HP,IBM, & Sun Unix", number(StFormat::spss)},
    {"spssp", "SPSS Portable File", number(StFormat::spssportable)},
    {"spsss", "SPSS 'Syntax' & Data File", 39},
    {"stata", "Stata", number(StFormat::stata)},
    {"stata/se", "Stata/SE", number(StFormat::stata)},
    {"statado", "Stata Program & Data File", 41},
    {"statistica", "Statistica", 30},
    {"systat", "Systat", 16},
    {"fixed", "Fixed Format ASCII File", 19},
    {"sigmaplot", "SigmaPlot File", 21},
    {"statistica", "Statistica", 30},
    {"rSybase", "Sybase SQL Server", 25},
    {"rMS-SQL", "Microsoft SQL Server", 28},
    {"rOracle", "Oracle", 26},
    {"rInformix", "Informix", 27},
    {"Sybase", "Sybase SQL Server", 45},
    {"sqlserv", "Microsoft SQL Server", 43},
    {"Oracle", "Oracle", 42},
    {"DB2", "DB2", 44},
};

// The open file of each level.
StHandle handles[3];

const FileType* findtype(const std::string& word) {
  for (const FileType& type : filetypes)
    if (strcasecmp(type.word, word.c_str()) == 0) return &type;
  return nullptr;
}

// The words of the types that a library reads, or nothing in a build without the layer.
std::string workingwords() {
  std::string words;
  for (const FileType& type : filetypes)
    if (ST_CanRead(type.format)) words += (words.empty() ? "" : ", ") + std::string(type.word);
  return words;
}

// The handle is fresh: it has no other file.
void openinput(StHandle handle, const FileType& type, const char* path) {
  const int result = ST_OpenInputFile(handle, type.format, path);
  if (result == -1) stopwith("\n%s does not exist!\n", path);
  if (result != 0) stopwith("\n%s cannot be opened for reading!\n", path);
}

void makerows(LevelSource& source, StHandle handle) {
  source.vartable.assign(static_cast<std::size_t>(source.numvar), RawVariable{});
  for (int v = 0; v < source.numvar; ++v) {
    RawVariable& variable = source.vartable[static_cast<std::size_t>(v)];
    namevariable(variable, ST_GetVarName(handle, v));
    variable.text = ST_GetVarType(handle, v) != 1;
    variable.width = ST_GetVarPrintWidth(handle, v);
    variable.labels = ST_Labels(handle, v);
  }
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

Id idof(StHandle handle, int v) {
  Id id{};
  StValue value{};
  int second = 0;
  const bool missing = ST_GetVarData(handle, v, &value, &second) == 1;
  if (!run.mdm.numericids) {
    refusezeros(*value.text);
    id.text = textid(*value.text);
  } else {
    id.number = missing ? missingcode : numericid(*value.number);
  }
  return id;
}

}  // namespace

int stformat(const std::string& word) {
  const FileType* type = findtype(word);
  return type == nullptr ? -1 : type->format;
}

std::string othertypes() {
  const std::string words = workingwords();
  return words.empty() ? words : "The types are " + words + ".\n";
}

void splitfiletype(const std::string& value, std::string& path, std::string& word) {
  std::size_t slash = value.find_last_of('/');
  const std::size_t before = slash == std::string::npos || slash == 0 ? slash : value.find_last_of('/', slash - 1);
  if (before != std::string::npos && stformat(trimmed(value.substr(slash + 1))) == -1 &&
      stformat(trimmed(value.substr(before + 1))) != -1)
    slash = before;
  word = slash == std::string::npos ? "" : trimmed(value.substr(slash + 1));
  if (word.empty()) stopwith("\nMust specify Stat/Transfer file type!\n%s", othertypes().c_str());
  path = trimmed(value.substr(0, slash));
}

void openother(int level) {
  LevelSource& source = raw.level[level];
  if (workingwords().empty()) stopwith("This %s was built without the libraries for raw data of type OTHER.\n", module);
  std::string path;
  splitfiletype(source.filename, path, source.filetype);
  source.filename = path;
  const FileType* type = findtype(source.filetype);
  if (type == nullptr) stopwith("\nIncorrect Stat/Transfer file type!\n%s", othertypes().c_str());
  if (!ST_CanRead(type->format))
    stopwith("\n%s has no library for files of type %s (%s). The types that it reads are %s.\n", module, type->word,
             type->description, workingwords().c_str());
  ST_CloseFiles(handles[level]);
  StHandle handle = handles[level] = ST_OpenEnvironment();
  openinput(handle, *type, path.c_str());
  source.numvar = ST_ReadDict(handle);
  if (source.numvar < 0 && std::string(ST_Trouble(handle)) == ST_CannotOpen)
    stopwith("\n%s cannot be opened for reading!\n", path.c_str());
  if (source.numvar < 0) {
    std::printf("%s cannot be read as %s: %s.\n", path.c_str(), type->word, ST_Trouble(handle));
    stoprun(1);
  }
  makerows(source, handle);
}

bool otherreads(const std::string& path, const char* word) {
  const int format = stformat(word);
  if (!ST_CanRead(format)) return false;
  StHandle handle = ST_OpenEnvironment();
  const bool reads = ST_OpenInputFile(handle, format, path.c_str()) == 0 && ST_ReadDict(handle) > 0;
  ST_CloseFiles(handle);
  return reads;
}

bool othercanbetext(int level) {
  return rawis(RawType::other) && stformat(raw.level[level].filetype) == number(StFormat::delimited);
}

void otherastext(int level, int row) {
  ST_ReadAsText(handles[level], row);
  raw.level[level].vartable[static_cast<std::size_t>(row)].text = true;
}

std::string otherwhytext(int level, int row) { return ST_WhyText(handles[level], row); }

void prepareother(int level) {
  settlevariables(level);
  const LevelSource& source = raw.level[level];
  for (int v = 0; v < source.numvar; ++v)
    if (source.vartable[static_cast<std::size_t>(v)].mark != unwanted) ST_SelectVar(handles[level], v);
  ST_InitReadOnly(handles[level]);
}

bool otherrow(int level) {
  LevelSource& source = raw.level[level];
  StHandle handle = handles[level];
  if (ST_ReadRecord(handle) == 0) return true;
  for (int v = 0; v < source.numvar; ++v)  // some files tell them behind the data
    source.vartable[static_cast<std::size_t>(v)].labels = ST_Labels(handle, v);
  if (const std::string trouble = ST_Trouble(handle); !trouble.empty()) {
    countextra();
    logboth("%s may be cut short: %s.\n", source.filename.c_str(), trouble.c_str());
  }
  if (const std::string remark = ST_Remark(handle); !remark.empty()) {
    countextra();
    logboth("%s: %s.\n", source.filename.c_str(), remark.c_str());
  }
  return false;
}

double othernumber(int level, int row) {
  StValue value{};
  int second = 0;
  return ST_GetVarData(handles[level], row, &value, &second) == 1 ? missingcode : *value.number;
}

const std::string& othertext(int level, int row) {
  StValue value{};
  int second = 0;
  static_cast<void>(ST_GetVarData(handles[level], row, &value, &second));
  return *value.text;
}

ValueLabels othervaluelabels(int level, int row) { return ST_ValueLabels(handles[level], row); }
std::string otherlabel(int level, int row) { return ST_GetVarLabel(handles[level], row); }

int strecord(int level, double* values, Id* id3, Id* id2) {
  LevelSource& source = raw.level[level];
  StHandle handle = handles[level];
  if (!otherrow(level)) return 1;
  for (int v = 0; v < source.numvar; ++v) {
    const int mark = source.vartable[static_cast<std::size_t>(v)].mark;
    if (mark == unwanted) continue;
    if (mark == level3idmark) {
      *id3 = idof(handle, v);
    } else if (mark == level2idmark) {
      if (id2 != nullptr) *id2 = idof(handle, v);
    } else {
      *values++ = othernumber(level, v);
    }
  }
  return 0;
}

void closeother(int level) {
  ST_CloseFiles(handles[level]);
  handles[level] = nullptr;
}

}  // namespace kdr
