#include "construct/mdmdialogue.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "construct/levelsource.h"
#include "construct/rawformats.h"
#include "construct/rawvariables.h"
#include "construct/readers/ascii.h"
#include "construct/readers/other.h"
#include "construct/readers/sastransport.h"
#include "construct/template.h"
#include "core/formatted.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr int mostasked = 1000;        // variables of a level that are asked for one by one
constexpr int mostempty = 25;          // empty answers to a question for a name
constexpr int mostchoices = 500;       // answers to the question for variables
constexpr double mostmissing = 1.0e9;  // bound of a missing code

bool isfile(const std::string& path) {
  struct stat about {};
  return stat(path.c_str(), &about) == 0 && !S_ISDIR(about.st_mode);
}

char initial(const std::string& line) {
  return line.empty() ? '\0' : static_cast<char>(std::toupper(static_cast<unsigned char>(line[0])));
}

// What the dialogue asks before the files are open.

void askrawtype() {
  std::printf(
      "Enter type of raw data:\n   for ASCII input                 enter 1\n"
      "   for SYSTAT .SYS file             enter 2\n   for SAS V5 transport file        enter 3\n"
      "   for SPSS file (UNIX or windows)  enter 4\n   for STATA .dta file              enter 5\n"
      "   for anything Stat/Transfer reads enter 6\n");
  constexpr const char* types[] = {"ascii", "systat", "sas", "spss", "stata", "other"};
  raw.reader = findreader(types[asknumber("Type?", 1, 6) - 1]);
}

void askformat(int level) {
  std::string& format = raw.level[level].format;
  for (int tries = 0; tries < maxtries; ++tries) {
    std::printf("The first A field must be a character level-3 id%s\n",
                level < 2 ? ", the second, the level-2 id" : "");
    if (!readanswer(formatted(" Input format of level-%1d file: ", level + 1), format, Question::format)) continue;
    if (format.size() >= maxformat) {
      std::printf(" A format has at most %d characters.\n", static_cast<int>(maxformat) - 1);
    } else if (checkformat(format)) {
      return;
    }
  }
  fail(14);
}

void askrawfile(int level) {
  std::string& name = raw.level[level].filename;
  const std::string prompt = formatted("\nInput name of level-%1d file: ", level + 1);
  for (int tries = 0; tries < maxtries; ++tries) {
    if (!readanswer(prompt, name, Question::rawfile) || name.empty()) continue;
    if (overlong(name)) {
      std::printf("File name too long: %s\n", name.c_str());
    } else if (isfile(name) || (rawis(RawType::sas) && name.ends_with(".ssp") && sasconvert(name))) {
      return;
    } else {
      std::printf("\n%s does not exist!\n", name.c_str());
    }
  }
  fail(14);
}

// A name with the type of the file behind a slash, for the readers that have to be told the type.
void asktypedfile(int level) {
  std::string& name = raw.level[level].filename;
  const std::string prompt =
      formatted("\nEnter Stat/Transfer filename for level-%1d or hit enter to be prompted:", level + 1);
  for (int tries = 0; tries < maxtries; ++tries) {
    if (!readanswer(prompt, name, Question::typedfile, othertypes())) continue;
    if (name.empty()) {
      std::printf("There are no windows here to choose from. Enter the name, a slash and the type of the file.\n");
    } else if (overlong(name)) {
      std::printf("File name too long: %s\n", name.c_str());
    } else {
      if (name.find('/') == std::string::npos)
        stopwith("\nMust specify Stat/Transfer file type!\n%s", othertypes().c_str());
      return;
    }
  }
  fail(14);
}

void asksource(int level) {
  if (rawis(RawType::ascii)) {
    const std::string prompt =
        formatted("\nInput number of level-%1d variables (not including the character ID):", level + 1);
    raw.level[level].numvar = asknumber(prompt.c_str(), level == 0 ? 1 : 0, mostasked);
    askformat(level);
  }
  if (rawis(RawType::other)) {
    asktypedfile(level);
  } else {
    askrawfile(level);
  }
}

// Names of variables in fixed columns.

Name askname(int level, int variable) {
  const std::string prompt = formatted("Enter 8 character name for level-%d variable number %d: ", level + 1, variable);
  std::string line;
  for (int empty = 0; empty <= mostempty; ++empty) {
    // A template could not hold a name that begins like a comment or like the end of its block.
    const bool any = readanswer(prompt, line, Question::name) && line.find_first_not_of(' ') != std::string::npos;
    const bool usable = any && line[0] != '#' && line[0] != '*';
    const Name name = paddedname(usablename(line));
    const Array<Name>& names = namesof(level);
    const bool taken =
        std::any_of(names.begin(), names.begin() + variable, [&](const Name& other) { return samename(other, name); });
    if (usable && !taken && !isintercept(name)) return name;
    std::printf(usable ? " That name is taken: names count by their first 8 characters. Try again.\n"
                       : " Invalid response. Try again.\n");
  }
  fail(14);
}

void asknames(int level) {
  const int count = raw.level[level].numvar;
  startnames(level, static_cast<std::size_t>(count));
  std::printf("\n");
  for (int v = 1; v <= count; ++v) namesof(level)[static_cast<std::size_t>(v)] = askname(level, v);
}

// Missing data.

// Returns whether one code stands for all variables.
bool askcodes() {
  Array<double>& codes = raw.missingcodes;
  codes.reset(static_cast<std::size_t>(raw.level[0].numvar));
  if (askyesno("Is the missing value the same for all variables?")) {
    codes.fill(askreal("Enter the number that represents missing data", -mostmissing, mostmissing));
    return true;
  }
  for (std::size_t v = 0; v < codes.size(); ++v) {
    const std::string prompt = formatted("Enter the value for missing data for %8.8s", run.mdm.names1[v + 1].text);
    codes[v] = askreal(prompt.c_str(), -mostmissing, mostmissing);
  }
  return false;
}

bool askdeletion() {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("Do you want to delete the missing data now, or at analysis time?\n (Enter \"now\" or \"analysis\")\n",
               line, Question::deletion);
    if (initial(line) == 'N') return true;
    if (initial(line) == 'A') return false;
  }
  fail(14);
}

void askmdmname() {
  std::string& name = run.files.mdmfile;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("\nEnter name of MDM file: ", name, Question::mdmfile);
    if (overlong(name)) {
      std::printf("File name too long: %s\n", name.c_str());
    } else if (!name.empty()) {
      return;
    }
  }
  fail(14);
}

// The variable chooser.

// Whether a template can hold the name in a line of its own.
bool canbelisted(const LevelSource& source, const RawVariable& variable) {
  const std::string name = tellingname(source, static_cast<int>(&variable - source.vartable.data()));
  const auto control = [](unsigned char c) { return std::iscntrl(c) != 0; };
  return !name.empty() && name[0] != '#' && std::none_of(name.begin(), name.end(), control);
}

// The rows of a file that can be chosen, in file order.
std::vector<RawVariable*> visiblerows(LevelSource& source) {
  std::vector<RawVariable*> rows;
  for (RawVariable& variable : source.vartable)
    if (!variable.hidden && canbelisted(source, variable)) rows.push_back(&variable);
  return rows;
}

void showvariables(int level, const std::vector<RawVariable*>& rows) {
  std::printf(" The available level-%1d variables are:\n", level + 1);
  const LevelSource& source = raw.level[level];
  for (std::size_t i = 0; i < rows.size(); ++i) {
    // Nine columns, but a whole name where fewer characters do not tell the variable.
    const int width = findvariable(source, shownname(*rows[i])) == severalvariables ? -1 : 9;
    std::printf(" For %.*s enter %2d%s", width, width < 0 ? rows[i]->fullname.c_str() : rows[i]->name.text,
                static_cast<int>(i) + 1, i % 3 == 2 || i + 1 == rows.size() ? "\n" : "   ");
  }
  const std::vector<RawVariable>& all = source.vartable;
  const auto left = std::count_if(all.begin(), all.end(),
                                  [&](const RawVariable& row) { return !row.hidden && !canbelisted(source, row); });
  if (left > 0)
    std::printf(" %d more cannot be chosen, since a template cannot hold their names.\n", static_cast<int>(left));
}

constexpr const char* alreadychosen = "You have already chosen that variable!\n";

int askrow(const char* prompt, int lo, int level, const std::vector<RawVariable*>& rows) {
  const LevelSource& source = raw.level[level];
  return askvariable(prompt, lo, static_cast<int>(rows.size()), [&](const std::string& name) {
    const int row = findvariable(source, name);
    const auto chosen = std::find_if(rows.begin(), rows.end(), [&](const RawVariable* variable) {
      return row >= 0 && variable == &source.vartable[static_cast<std::size_t>(row)];
    });
    return chosen == rows.end() ? 0 : static_cast<int>(chosen - rows.begin()) + 1;
  });
}

// Asks for the column of an ID and marks it. The first ID of all settles the kind.
void choosecolumn(const char* prompt, int mark, int level, const std::vector<RawVariable*>& rows) {
  for (int tries = 0; tries < maxtries; ++tries) {
    RawVariable& row = *rows[static_cast<std::size_t>(askrow(prompt, 1, level, rows)) - 1];
    const auto agrees = [&] {
      row.mark = mark;
      const bool agree = agreeonids();
      if (!agree) row.mark = unwanted;
      return agree;
    };
    if (row.mark != unwanted) {
      std::printf("%s", alreadychosen);
    } else if (row.text && row.width > static_cast<int>(longestid)) {
      std::printf("Your ID variable is longer than 12 characters.\n");
    } else if (agrees()) {
      return;
    } else {
      std::printf("ID's must be both be character or both numeric!\n");
    }
  }
  fail(14);
}

// The marked rows in the order of a record's values: `picked` for the format that keeps the user's order, else the
// order of the file.
void takechosen(LevelSource& source, const std::vector<int>& picked) {
  std::vector<int> order = picked;
  if (!rawis(RawType::systat)) std::sort(order.begin(), order.end());
  source.chosen.reset(order.size());
  std::copy(order.begin(), order.end(), source.chosen.begin());
}

void pickvariables(int level, const std::vector<RawVariable*>& rows) {
  LevelSource& source = raw.level[level];
  const auto usable = [](const RawVariable* row) { return !row->text && row->mark == unwanted; };
  std::vector<int> picked;
  int tries = 0;
  while (std::any_of(rows.begin(), rows.end(), usable)) {
    if (++tries > mostchoices) fail(14);
    const std::string prompt = formatted(" Please specify level-%d variable #%2d (enter 0 to end):", level + 1,
                                         static_cast<int>(picked.size()) + 1);
    const int number = askrow(prompt.c_str(), 0, level, rows);
    if (number == 0) break;
    RawVariable& row = *rows[static_cast<std::size_t>(number) - 1];
    const auto alike = [&](int other) {
      return samename(source.vartable[static_cast<std::size_t>(other)].name, row.name);
    };
    if (row.text) {
      std::printf(" This is a character variable!\n");
    } else if (row.mark != unwanted) {
      std::printf("%s", alreadychosen);
    } else if (isintercept(row.name)) {
      std::printf("%s is the name of an intercept!\n", shownname(row).c_str());
    } else if (std::any_of(picked.begin(), picked.end(), alike)) {
      std::printf("You have already chosen a variable %s: names count by their first 8 characters!\n",
                  shownname(row).c_str());
    } else {
      row.mark = variablemark;
      picked.push_back(static_cast<int>(&row - source.vartable.data()));
    }
  }
  takechosen(source, picked);
}

}  // namespace

void choosevariables(int level) {
  LevelSource& source = raw.level[level];
  clearmarks(level);
  const std::vector<RawVariable*> rows = visiblerows(source);
  showvariables(level, rows);
  choosecolumn(" What variable is the level-3 ID?", level3idmark, level, rows);
  if (level < 2) choosecolumn(" What variable is the level-2 ID?", level2idmark, level, rows);
  pickvariables(level, rows);
  takenames(level);
}

void mdmdialogue() {
  forgetraw();
  MdmData& mdm = run.mdm;
  mdm.mdmtype = MdmType::ordinary;
  mdm.numericids = false;
  mdm.deletednow = true;
  askrawtype();
  for (int level = 0; level < 3; ++level) asksource(level);
  for (int level = 0; level < 3; ++level) openraw(level);
  for (int level = 0; level < 3; ++level) {
    if (rawis(RawType::ascii)) {
      asknames(level);
    } else {
      choosevariables(level);
    }
  }
  bool samemissing = false;
  mdm.l1missing = askyesno("Are there missing data in the level-1 file?") != 0;
  if (mdm.l1missing) {
    if (rawis(RawType::ascii)) samemissing = askcodes();
    mdm.deletednow = askdeletion();
  }
  askmdmname();
  writetemplate(samemissing);
}

}  // namespace kdr
