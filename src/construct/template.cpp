#include "construct/template.h"

#include <strings.h>

#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string_view>

#include "construct/fileclashes.h"
#include "construct/levelsource.h"
#include "construct/rawformats.h"
#include "construct/rawvariables.h"
#include "construct/readers/ascii.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "driver/textmark.h"

namespace kdr {

namespace {

constexpr int mostvariables = 1000000;
constexpr std::size_t mostshown = 60;  // bytes of a line in a message

// A template on its way through the reader.
struct TemplateText {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream;
  std::string path;
  int number = 0;            // of the line in hand, from 1
  bool samemissing = false;  // one missing code stands for all variables
  bool counted[3] = {};      // the level's number of variables was given
  bool named[3] = {};        // its variable block was read
};

constexpr const char* noformat = "Must specify raw data type before input file name!\n";
constexpr const char* nofile = "Must specify raw data type and input file name before variable names!\n";
constexpr const char* badmissing = "Incorrect specification of ASCII missing information!\n";

// The next line, whatever it holds, without its end and trailing blanks. A longer one than a line may be comes in
// pieces. False at the end of the file.
bool nextline(TemplateText& text, std::string& line) {
  char buffer[maxline];
  line.clear();
  const bool read = std::fgets(buffer, sizeof buffer, text.stream.get()) != nullptr;
  checkread(text.stream.get(), text.path);
  if (!read) return false;
  line = buffer;
  if (text.number++ == 0) dropmark(line, text.path);
  if (!line.empty() && line.back() == '\n') {
    line.pop_back();
    if (!line.empty() && line.back() == '\r') line.pop_back();
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return true;
}

// The next line that says something.
bool nextword(TemplateText& text, std::string& line) {
  while (nextline(text, line))
    if (!line.empty() && line[0] != ' ' && line[0] != '#') return true;
  return false;
}

bool beginswith(std::string_view line, const char* word) {
  return strncasecmp(std::string(line).c_str(), word, std::strlen(word)) == 0;
}

std::string withoutlead(const std::string& value) {
  const std::size_t first = value.find_first_not_of(' ');
  return first == std::string::npos ? std::string() : value.substr(first);
}

char firstletter(const std::string& value) {
  return value.empty() ? '\0' : static_cast<char>(std::toupper(static_cast<unsigned char>(value[0])));
}

// A value that its keyword does not have.
[[noreturn]] void badvalue(const TemplateText& text) {
  stopwith("Line %d of the template %s has a value that is not valid.\n", text.number, text.path.c_str());
}

// The first letter of a value, which must be one of `letters`.
char oneof(const TemplateText& text, const std::string& value, const char* letters) {
  const char letter = firstletter(value);
  if (letter == '\0' || std::strchr(letters, letter) == nullptr) badvalue(text);
  return letter;
}

const std::string& pathvalue(const std::string& value) {
  if (overlong(value)) stopwith("File name too long: %s\n", value.c_str());
  return value;
}

double missingvalue(TemplateText& text) {
  std::string line;
  if (!nextline(text, line)) stopwith(badmissing);
  const std::optional<double> value = realof(line);
  if (!value) stopwith(badmissing);
  return *value;
}

void takemissing(TemplateText& text, const std::string& value) {
  MdmData& mdm = run.mdm;
  mdm.l1missing = oneof(text, value, "YN") == 'Y';
  if (!mdm.l1missing) return;
  const std::string list = value.substr(1);
  if (raw.reader == nullptr && beginswith(list, "/")) stopwith(nofile);
  if (!rawis(RawType::ascii)) return;
  if (!text.counted[0]) stopwith(nofile);
  raw.missingcodes.reset(static_cast<std::size_t>(raw.level[0].numvar));
  if (beginswith(list, "/SAME")) {
    text.samemissing = true;
    raw.missingcodes.fill(missingvalue(text));
  } else if (beginswith(list, "/DIFFERENT")) {
    text.samemissing = false;
    for (double& code : raw.missingcodes) code = missingvalue(text);
  } else {
    stopwith(badmissing);
  }
}

void takerawtype(TemplateText&, const std::string& value) {
  const RawReader* reader = findreader(value);
  if (reader == nullptr) stopwith("Invalid raw data type.\n");
  for (int level = 0; level < 3; ++level)  // files that were opened in another format have to be named again
    if (raw.reader != reader) closeraw(level);
  raw.reader = reader;
}

// A line about level 3 where there are two.
void refuselevel3(const TemplateText& text, int level) {
  if (level == 2 && run.mdm.twolevel())
    stopwith("Line %d of the template %s is about level 3, and MDMTYPE:4 has two levels.\n", text.number,
             text.path.c_str());
}

void takecount(TemplateText& text, int level, const std::string& value) {
  const std::optional<int> count = wholeof(value);
  if (!count) badvalue(text);
  if (*count < 0 || *count > mostvariables)
    stopwith("The number of level-%d variables must lie between 0 and %d!\n", level + 1, mostvariables);
  if (raw.reader != nullptr && !rawis(RawType::ascii)) return;  // the file tells it
  raw.level[level].numvar = *count;
  startnames(level, static_cast<std::size_t>(*count));
  text.counted[level] = true;
  text.named[level] = false;
}

void takeformat(TemplateText&, int level, const std::string& value) {
  if (raw.reader == nullptr) stopwith(noformat);
  raw.level[level].format = value;
  if (raw.level[level].format.size() >= maxformat)
    stopwith("The format of the level-%d file has more than %d characters!\n", level + 1,
             static_cast<int>(maxformat) - 1);
  if (!checkformat(raw.level[level].format)) stopwith("\nThe format of the level-%d file cannot be used.\n", level + 1);
}

void takefile(TemplateText& text, int level, const std::string& value) {
  if (raw.reader == nullptr) stopwith(noformat);
  LevelSource& source = raw.level[level];
  closeraw(level);
  source.filename = pathvalue(value);
  source.filetype.clear();
  source.vartable.clear();
  source.chosen.reset(0);
  openraw(level);
  if (!rawis(RawType::ascii)) text.named[level] = false;
}

// The ID line of a variable block: `word` and the name of the column.
void takeidline(TemplateText& text, int level, const char* word, int mark) {
  std::string line;
  if (!nextword(text, line) || !beginswith(line, word))
    stopwith("ID specification must immediately follow *begin line!\n");
  markid(level, mark, withoutlead(line.substr(std::strlen(word))));
}

// The level's names must tell its variables from each other and from the intercepts.
void checknames(int level) {
  const Array<Name>& names = namesof(level);
  std::set<std::string> seen;
  for (std::size_t v = 1; v < names.size(); ++v) {
    const std::string name = leftname(names[v]);
    if (isintercept(names[v]))
      stopwith("A level-%d variable must not bear the name of an intercept, %s!\n", level + 1, name.c_str());
    if (!seen.insert(name).second)
      stopwith(
          "Two variables of the level-%d file %s would have the name %s: names count by their first 8 characters!\n",
          level + 1, raw.level[level].filename.c_str(), name.c_str());
  }
}

// The variable block of a format that names its variables itself.
void takevariables(TemplateText& text, int level, const char* ending) {
  clearmarks(level);
  if (run.mdm.twolevel()) {
    takeidline(text, level, "level2id:", level3idmark);
  } else {
    takeidline(text, level, "level3id:", level3idmark);
    if (level < 2) takeidline(text, level, "level2id:", level2idmark);
  }
  settleidkind();
  std::string line;
  for (;;) {
    if (!nextword(text, line)) stopwith("Did not find %s!\n", ending);
    if (beginswith(line, ending)) break;
    markvariable(level, line);
  }
  takenames(level);
  text.named[level] = true;
}

void takeblock(TemplateText& text, int level) {
  if (raw.reader == nullptr || !raw.level[level].opened) stopwith(nofile);
  char ending[] = "*END L1VARS";
  ending[6] = static_cast<char>('1' + level);
  if (!rawis(RawType::ascii)) return takevariables(text, level, ending);
  if (!text.counted[level]) stopwith("Must specify the number of level-%d variables before their names!\n", level + 1);
  Array<Name>& names = namesof(level);
  std::size_t given = 0;
  std::string line;
  for (;;) {
    if (!nextword(text, line)) stopwith("Did not find %s!\n", ending);
    if (beginswith(line, ending)) break;
    if (charactersof(line) > longestname) stopwith("Variable name %s is too long!\n", line.c_str());
    if (++given == names.size())
      stopwith("There are more than %d level-%d variable names!\n", raw.level[level].numvar, level + 1);
    names[given] = paddedname(usablename(line));
    if (!samename(names[given], paddedname(printable(line))))
      std::printf("Variable %s of the level-%d file has the name %s in the MDM file.\n", printable(line).c_str(),
                  level + 1, leftname(names[given]).c_str());
  }
  if (given + 1 < names.size())
    stopwith("There are fewer than %d level-%d variable names!\n", raw.level[level].numvar, level + 1);
  checknames(level);
  text.named[level] = true;
}

void takegrowth(TemplateText& text, const std::string& value) {
  run.mdm.mdmtype = oneof(text, value, "YN") == 'Y' ? MdmType::measurement : MdmType::ordinary;
}

void taketype(TemplateText& text, const std::string& value) {
  if (value.size() != 1) badvalue(text);
  run.mdm.mdmtype = static_cast<MdmType>(oneof(text, value, "01234") - '0');
  if (run.mdm.twolevel() && (text.named[0] || text.named[1] || raw.level[2].opened))
    stopwith("MDMTYPE:4 stands in front of the files and variables, and there is no level-3 file.\n");
}

void takedeletion(TemplateText& text, const std::string& value) {
  run.mdm.deletednow = oneof(text, value, "NA") == 'N';
  if (!beginswith(run.mdm.deletednow ? "NOW" : "ANALYSIS", value.c_str())) badvalue(text);  // "never" is not "now"
}

void takemdmname(TemplateText&, const std::string& value) { run.files.mdmfile = pathvalue(value); }

void takevarying(TemplateText& text, const std::string& value) {
  if (strcasecmp(value.c_str(), "FIRST") != 0) badvalue(text);
  raw.varyingfirst = true;
}

struct Keyword {
  const char* word;
  void (*take)(TemplateText& text, const std::string& value);
};
constexpr Keyword keywords[] = {
    {"GROWTHMODEL:", takegrowth},      {"MDMTYPE:", taketype},       {"L1MISSING:", takemissing},
    {"TIMEOFDELETION:", takedeletion}, {"RAWDATTYPE:", takerawtype}, {"MDMNAME:", takemdmname},
    {"VARYING:", takevarying},
};

// Keywords that name a level. `digit` is the place of its digit.
struct LevelKeyword {
  const char* word;
  std::size_t digit;
  void (*take)(TemplateText& text, int level, const std::string& value);
};
constexpr LevelKeyword levelkeywords[] = {
    {"NUML1VAR:", 4, takecount},
    {"L1FORMAT:", 1, takeformat},
    {"L1FNAME:", 1, takefile},
    {"*BEGIN L1VARS", 8, [](TemplateText& text, int level, const std::string&) { takeblock(text, level); }},
};

void takeline(TemplateText& text, const std::string& line) {
  for (const Keyword& keyword : keywords)
    if (beginswith(line, keyword.word)) return keyword.take(text, withoutlead(line.substr(std::strlen(keyword.word))));
  for (const LevelKeyword& keyword : levelkeywords)
    for (int level = 0; level < 3; ++level) {
      std::string word = keyword.word;
      word[keyword.digit] = static_cast<char>('1' + level);
      if (!beginswith(line, word.c_str())) continue;
      refuselevel3(text, level);
      return keyword.take(text, level, withoutlead(line.substr(word.size())));
    }
  stopwith("Line %d of the template %s has no keyword of a template: %s\n", text.number, text.path.c_str(),
           printable(line.substr(0, mostshown)).c_str());
}

// Each level-2 unit is a level-3 unit without variables: the level-2 file serves for both.
void makelevel3() {
  LevelSource& source = raw.level[2];
  const std::string& type = raw.level[1].filetype;
  source.filename = raw.level[1].filename + (type.empty() ? "" : " /" + type);
  source.format = raw.level[1].format;
  startnames(2, 0);
  openraw(2);
  if (rawis(RawType::ascii)) return;
  const RawVariable& id = raw.level[1].vartable[static_cast<std::size_t>(idrow(raw.level[1], level3idmark))];
  markid(2, level3idmark, id.fullname);
  takenames(2);
}

// What a construction cannot do without.
void checkcomplete(const TemplateText& text) {
  if (raw.reader == nullptr) stopwith("The template tells no raw data type!\n");
  for (int level = 0; level < (run.mdm.twolevel() ? 2 : 3); ++level) {
    const LevelSource& source = raw.level[level];
    if (!source.opened) stopwith("The template names no level-%d file!\n", level + 1);
    if (!rawis(RawType::ascii)) {
      if (!text.named[level]) stopwith("The template names no level-%d variables!\n", level + 1);
      continue;
    }
    if (!text.counted[level]) stopwith("The template tells no number of level-%d variables!\n", level + 1);
    if (source.format.empty()) stopwith("The template tells no format of the level-%d file!\n", level + 1);
    if (!text.named[level] && source.numvar > 0) stopwith("The template names no level-%d variables!\n", level + 1);
  }
  if (rawis(RawType::ascii) && run.mdm.l1missing &&
      raw.missingcodes.size() != static_cast<std::size_t>(raw.level[0].numvar))
    stopwith(badmissing);
}

// The ID columns and the variables of a level, in the order of a record's values: that of the raw file for every format
// but SYSTAT, whose list has an order of its own.
void writevariables(std::FILE* out, const LevelSource& source) {
  const int row3 = idrow(source, level3idmark);
  const int row2 = idrow(source, level2idmark);
  if (row3 >= 0) std::fprintf(out, "level%did:%s\n", run.mdm.twolevel() ? 2 : 3, tellingname(source, row3).c_str());
  if (row2 >= 0) std::fprintf(out, "level2id:%s\n", tellingname(source, row2).c_str());
  for (const int row : source.chosen) std::fprintf(out, "%s\n", tellingname(source, row).c_str());
}

}  // namespace

Array<Name>& namesof(int level) { return level == 0 ? run.mdm.names1 : level == 1 ? run.mdm.names2 : run.mdm.names3; }

void startnames(int level, std::size_t count) {
  Array<Name>& names = namesof(level);
  names.reset(count + 1);
  names.fill(paddedname(""));
  names[0] = paddedname(level == 0 ? "INTRCPT1" : level == 1 ? "INTRCPT2" : "INTRCPT3");
}

bool isintercept(const Name& name) {
  const std::string text = leftname(name);
  return text == "INTRCPT1" || text == "INTRCPT2" || text == "INTRCPT3";
}

void takenames(int level) {
  const LevelSource& source = raw.level[level];
  startnames(level, source.chosen.size());
  for (std::size_t v = 0; v < source.chosen.size(); ++v) {
    const RawVariable& variable = source.vartable[static_cast<std::size_t>(source.chosen[v])];
    Name& name = namesof(level)[v + 1] = paddedname(usablename(shownname(variable)));
    if (!samename(name, paddedname(variable.fullname)))
      std::printf("Variable %s of the level-%d file has the name %s in the MDM file.\n",
                  printable(variable.fullname).c_str(), level + 1, leftname(name).c_str());
  }
  checknames(level);
}

bool istemplate(const std::string& path) {
  std::FILE* stream = std::fopen(path.c_str(), "r");
  if (stream == nullptr) stopwith("Unable to open %s\n", path.c_str());
  char bytes[80];
  std::string line(bytes, std::fread(bytes, 1, sizeof bytes, stream));
  checkread(stream, path);
  std::fclose(stream);
  dropmark(line, path);
  return beginswith(line, templatehead);
}

void readtemplate(const std::string& path) {
  TemplateText text{{openfile(path, "r"), std::fclose}, path};
  std::string line;
  if (!nextline(text, line) || !beginswith(line, templatehead))
    stopwith("%s does not seem to be a %s mdm template file!\n", path.c_str(), module);
  forgetraw();
  raw.templatename = path;
  run.mdm.l1missing = false;
  run.mdm.deletednow = true;
  run.mdm.mdmtype = MdmType::ordinary;
  run.mdm.numericids = false;
  while (nextword(text, line)) takeline(text, line);
  text.stream.reset();
  checkcomplete(text);
  if (run.mdm.twolevel()) makelevel3();
  writetemplate(text.samemissing);
}

void writetemplate(bool samemissing) {
  const MdmData& mdm = run.mdm;
  const bool ascii = rawis(RawType::ascii);
  const int levels = mdm.twolevel() ? 2 : 3;
  for (const LevelSource& source : raw.level)
    if (samefile(source.filename, templatecopy))
      stopwith("The raw data file %s bears the name of the template's copy. Please rename it.\n",
               source.filename.c_str());
  refuseinput(templatecopy, InputKind::mdmtemplate);
  ResultFile file;
  opentext(file, templatecopy);
  std::FILE* out = file.stream;
  std::fprintf(out, "%s\n", templatehead);
  std::fprintf(out, "mdmtype:%d\n", static_cast<int>(mdm.mdmtype));
  std::fprintf(out, "rawdattype:%s\n", raw.reader->word);
  for (int level = 0; level < levels; ++level) {
    const LevelSource& source = raw.level[level];
    std::fprintf(out, "l%dfname:%s", level + 1, source.filename.c_str());
    if (!source.filetype.empty()) std::fprintf(out, " /%s", source.filetype.c_str());
    std::fprintf(out, "\n");
  }
  for (int level = 0; ascii && level < levels; ++level)
    std::fprintf(out, "numl%dvar:%d\n", level + 1, raw.level[level].numvar);
  for (int level = 0; ascii && level < levels; ++level)
    std::fprintf(out, "l%dformat:%s\n", level + 1, raw.level[level].format.c_str());
  std::fprintf(out, "l1missing:%c", mdm.l1missing ? 'y' : 'n');
  if (ascii && mdm.l1missing) {
    std::fprintf(out, samemissing ? "/SAME\n" : "/DIFFERENT\n");
    const std::size_t lines = samemissing && !raw.missingcodes.empty() ? 1 : raw.missingcodes.size();
    for (std::size_t v = 0; v < lines; ++v) std::fprintf(out, "%f\n", raw.missingcodes[v]);
  } else {
    std::fprintf(out, "\n");
  }
  std::fprintf(out, "timeofdeletion:%s\n", mdm.deletednow ? "now" : "analysis");
  if (raw.varyingfirst) std::fprintf(out, "varying:first\n");
  std::fprintf(out, "mdmname:%s\n", run.files.mdmfile.c_str());
  for (int level = 0; level < levels; ++level) {
    std::fprintf(out, "*begin l%dvars\n", level + 1);
    if (ascii) {
      const Array<Name>& names = namesof(level);
      for (std::size_t v = 1; v < names.size(); ++v) std::fprintf(out, "%s\n", leftname(names[v]).c_str());
    } else {
      writevariables(out, raw.level[level]);
    }
    std::fprintf(out, "*end l%dvars\n", level + 1);
  }
  finishresult(file);
}

}  // namespace kdr
