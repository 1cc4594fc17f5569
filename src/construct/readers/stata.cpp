#include "construct/readers/stata.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "construct/rawvariables.h"
#include "construct/readers/bytereader.h"
#include "construct/readers/other.h"
#include "core/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

enum class StataType : unsigned char { int8, int16, int32, float32, float64, text };

// A variable within an observation.
struct StataVariable {
  std::size_t offset;
  StataType type;
  int width;
};

struct StataFile {
  ByteReader bytes;
  int release = 0;
  int numvar = 0;
  int numobs = 0;
  int nread = 0;
  std::size_t rowwidth = 0;  // bytes of an observation
  Array<StataVariable> variables;
  long long data = 0;  // where the observations begin
};

StataFile files[3];

// The release level of a format byte; 0 for none of those that are read here.
int releaseof(unsigned char format) {
  switch (format) {
    case 108:
      return 6;
    case 110:
      return 7;
    case 111:
    case 113:
      return 8;
    case 114:
      return 10;
    case 115:
      return 11;
    default:
      return 0;
  }
}

[[noreturn]] void refuse(int level) { fail(1, raw.level[level].filename.c_str()); }

// Refuses a file that another reader may know.
[[noreturn]] void leavetoother(int level) {
  if (otherreads(raw.level[level].filename, "stata"))
    std::printf("This file can be read with rawdattype:other and the file type /stata.\n");
  refuse(level);
}

[[noreturn]] void notstata(int level) {
  std::printf("The level-%d file does not seem to be a %s file!\n", level + 1, "Stata");
  leavetoother(level);
}

[[noreturn]] void damaged(int level) {
  std::printf("The head of the level-%d Stata file is damaged.\n", level + 1);
  refuse(level);
}

// Tells the type of a code of the file's type list. False for a code that there is not.
bool settype(int release, unsigned char code, StataVariable& variable) {
  static constexpr unsigned char letters[] = {'b', 'i', 'l', 'f', 'd'};
  static constexpr int widths[] = {1, 2, 4, 4, 8};
  for (int i = 0; i < 5; ++i)
    if (code == (release < 8 ? letters[i] : 251 + i)) {
      variable.type = static_cast<StataType>(i);
      variable.width = widths[i];
      return true;
    }
  constexpr int widesttext = 244;
  variable.type = StataType::text;
  variable.width = release < 8 ? code - 127 : code;  // 255 - 127 is far below the widest
  return variable.width >= 0 && variable.width <= widesttext;
}

void readhead(int level) {
  StataFile& file = files[level];
  const unsigned char* head = takebytes(file.bytes, 2);
  if (head == nullptr || head[0] < 108) notstata(level);
  file.release = releaseof(head[0]);
  if (file.release == 0) {
    std::printf("So sorry, but %s cannot read this version of stata.\n", module);
    leavetoother(level);
  }
  if (head[1] == 1) {
    std::printf("This file seems to have been created on a different platform!\n");
    leavetoother(level);
  }
  head = takebytes(file.bytes, 8);
  if (head == nullptr || !skipbytes(file.bytes, 99)) damaged(level);
  file.numvar = lowfirst<std::int16_t>(head + 2);
  file.numobs = lowfirst<std::int32_t>(head + 4);
  if (file.numvar < 0 || file.numobs < 0) damaged(level);
}

void readtypes(int level) {
  StataFile& file = files[level];
  const auto numvar = static_cast<std::size_t>(file.numvar);
  const unsigned char* types = takebytes(file.bytes, numvar);
  if (types == nullptr) damaged(level);
  file.variables.reset(numvar);
  raw.level[level].vartable.assign(numvar, RawVariable{});
  for (std::size_t v = 0; v < numvar; ++v) {
    StataVariable& variable = file.variables[v];
    if (!settype(file.release, types[v], variable)) damaged(level);
    variable.offset = file.rowwidth;
    file.rowwidth += static_cast<std::size_t>(variable.width);
    raw.level[level].vartable[v].text = variable.type == StataType::text;
    raw.level[level].vartable[v].width = variable.width;
  }
  if (file.rowwidth == 0 && file.numobs > 0) damaged(level);
}

void readnames(int level) {
  StataFile& file = files[level];
  const std::size_t width = file.release < 7 ? 9 : 33;
  for (RawVariable& variable : raw.level[level].vartable) {
    const unsigned char* bytes = takebytes(file.bytes, width);
    if (bytes == nullptr) damaged(level);
    const char* name = reinterpret_cast<const char*>(bytes);
    namevariable(variable, std::string_view(name, strnlen(name, width)));
  }
}

// Passes over the rest of the head but for the names of lists of labels: these stand behind the data.
void skiprest(int level) {
  StataFile& file = files[level];
  const long long numvar = file.numvar;
  const int formatwidth = file.release < 10 ? 12 : 49;
  const int labelname = file.release < 7 ? 9 : 33;
  constexpr int labelwidth = 81;
  if (!skipbytes(file.bytes, 2 * (numvar + 1) + numvar * formatwidth)) damaged(level);
  for (RawVariable& variable : raw.level[level].vartable) {
    const unsigned char* name = takebytes(file.bytes, static_cast<std::size_t>(labelname));
    if (name == nullptr) damaged(level);
    if (*name != 0) variable.labels = "yes";
  }
  if (!skipbytes(file.bytes, numvar * labelwidth)) damaged(level);
  for (;;) {
    unsigned char type = 0;
    std::int32_t length = 0;
    if (!takelow(file.bytes, type)) damaged(level);
    if (file.release < 7) {
      std::int16_t shortlength = 0;
      if (!takelow(file.bytes, shortlength)) damaged(level);
      length = shortlength;
    } else if (!takelow(file.bytes, length)) {
      damaged(level);
    }
    if (type == 0 && length == 0) break;
    if (!skipbytes(file.bytes, length)) damaged(level);
  }
  file.data = byteposition(file.bytes);
}

// Whole numbers of the older releases have one missing value each, the later ones a range of them at the top.
template <class Number>
double wholenumber(const unsigned char* bytes, bool older, int oldmissing, int firstmissing) {
  const Number value = lowfirst<Number>(bytes);
  return (older ? value == oldmissing : value >= firstmissing) ? missingcode : value;
}

double realnumber(double value, double most) { return std::isfinite(value) && value <= most ? value : missingcode; }

double numbervalue(const StataFile& file, const StataVariable& variable, const unsigned char* row) {
  const unsigned char* bytes = row + variable.offset;
  const bool older = file.release < 8;
  switch (variable.type) {
    case StataType::int8:
      return wholenumber<std::int8_t>(bytes, older, 127, 101);
    case StataType::int16:
      return wholenumber<std::int16_t>(bytes, older, 32767, 32741);
    case StataType::int32:
      return wholenumber<std::int32_t>(bytes, older, 2147483647, 2147483621);
    case StataType::float32:
      return realnumber(static_cast<double>(lowfirst<float>(bytes)), older ? 1.0e38 : 1.701e38);
    case StataType::float64:
      return realnumber(lowfirst<double>(bytes), older ? 1.0e307 : 8.988e307);
    case StataType::text:
      break;
  }
  return missingcode;
}

void takeid(const StataFile& file, int idat, const unsigned char* row, Id& id) {
  const StataVariable& variable = file.variables[static_cast<std::size_t>(idat)];
  if (run.mdm.numericids) {
    id.number = numericid(numbervalue(file, variable, row));
    return;
  }
  const char* text = reinterpret_cast<const char*>(row + variable.offset);
  const std::size_t length = strnlen(text, static_cast<std::size_t>(variable.width));
  if (length > longestid) stopwith("Your ID variable is longer than 12 characters.\n");
  id.text = Name{};
  std::memcpy(id.text.text, text, length);  // as it stands: neither upper case nor moved to the right
}

}  // namespace

void openstata(int level) {
  LevelSource& source = raw.level[level];
  files[level] = StataFile{};
  source.stream = startbytes(files[level].bytes, source.filename);
  readhead(level);
  readtypes(level);
  readnames(level);
  skiprest(level);
  source.numvar = files[level].numvar;
}

void preparestata(int level) {
  StataFile& file = files[level];
  settlevariables(level);
  seekbytes(file.bytes, file.data);
  file.nread = 0;
}

int statarecord(int level, double* values, Id* id3, Id* id2) {
  StataFile& file = files[level];
  if (file.nread == file.numobs) return 1;
  const unsigned char* row = takebytes(file.bytes, file.rowwidth);
  if (row == nullptr) {
    reportbroken(file.bytes, file.nread + 1LL, bytesleft(file.bytes) > 0, file.numobs);
    file.nread = file.numobs;
    return 1;
  }
  const LevelSource& source = raw.level[level];
  if (source.row3 >= 0) takeid(file, source.row3, row, *id3);
  if (source.row2 >= 0 && id2 != nullptr) takeid(file, source.row2, row, *id2);
  for (const int v : source.chosen) *values++ = numbervalue(file, file.variables[static_cast<std::size_t>(v)], row);
  ++file.nread;
  return 0;
}

void closestata(int level) {
  closestream(level);
  files[level] = StataFile{};
}

}  // namespace kdr
