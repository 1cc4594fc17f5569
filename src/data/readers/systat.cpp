#include "data/readers/systat.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "data/buildlog.h"
#include "data/scratch.h"
#include "driver/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::size_t segmentlength = 128;
constexpr std::size_t namelength = 12;
constexpr std::size_t commentlength = 74;
constexpr int longmark = 0x81;  // the record goes on behind its first segment
constexpr int endmark = 0x82;   // stands behind the last record
constexpr int singles = 1;
constexpr int doubles = 2;

struct SystatText {
  char bytes[namelength];
};

// The file of one level.
struct SystatFile {
  int type = 0;               // singles or doubles
  Array<int> place;           // of each variable among the numbers or among the texts of the record
  Array<double> numbers;      // of the record in hand
  Array<SystatText> strings;  // likewise
  bool segmented = false;     // the record in hand has segments
  std::size_t left = 0;       // bytes of its segment that are still to come
  long long records = 0;      // that were read
};

SystatFile files[3];

[[noreturn]] void damaged(int level, const char* what) {
  const char* name = raw.level[level].filename.c_str();
  std::printf("%s is no SYSTAT file, or it is cut short or damaged: %s.\n", name, what);
  fail(1, name);
}

struct Counts {
  int variables;
  int type;
};

// The variable count, two bytes, the file type and one byte.
bool readcounts(std::FILE* stream, Counts& counts) {
  std::int16_t words[3];
  char last = 0;
  if (readchk(words, sizeof words, stream) == 0 || readchk(&last, 1, stream) == 0) return false;
  counts = {words[0], words[2]};
  return true;
}

bool skipcomment(std::FILE* stream) {
  char record[commentlength];
  char last[72];
  std::memset(last, '$', sizeof last);
  do {
    if (readchk(record, sizeof record, stream) == 0) return false;
  } while (std::memcmp(record + 1, last, sizeof last) != 0);
  return true;
}

// Reads the head up to the names: numvar and the type of the numbers.
void systatcount(int level) {
  LevelSource& source = raw.level[level];
  char bytes[2];
  Counts counts{};
  bool whole = readchk(bytes, 2, source.stream) == 1 && readcounts(source.stream, counts);
  if (whole && counts.type < singles)
    whole = skipcomment(source.stream) && readchk(bytes, 1, source.stream) == 1 && readcounts(source.stream, counts);
  if (!whole) damaged(level, "its head is not whole");
  if (counts.type != singles && counts.type != doubles) damaged(level, "its numbers are of no known type");
  if (counts.variables <= 0) damaged(level, "it tells no number of variables");
  source.numvar = counts.variables;
  files[level].type = counts.type;
}

// A name without the blanks before it, up to the first blank behind it.
std::string readname(int level) {
  char bytes[namelength + 2];
  if (readchk(bytes, sizeof bytes, raw.level[level].stream) == 0) damaged(level, "its names are not whole");
  std::string name(bytes + 1, namelength);
  std::replace(name.begin(), name.end(), '\0', ' ');
  name.erase(0, name.find_first_not_of(' '));
  name.erase(std::min(name.find(' '), name.size()));
  if (name.size() > 8 && name[8] != '$') stopwith("\nVariable names limited to 8 characters.\n");
  return name;
}

void systathead(int level) {
  LevelSource& source = raw.level[level];
  SystatFile& file = files[level];
  systatcount(level);
  const auto count = static_cast<std::size_t>(source.numvar);
  source.vartable.reset(count);
  file.place.reset(count);
  std::size_t numbers = 0;
  std::size_t strings = 0;
  for (std::size_t v = 0; v < count; ++v) {
    RawVariable& variable = source.vartable[v];
    const std::string name = readname(level);
    variable.text = name.find('$') != std::string::npos;
    variable.name = paddedname(name, variable.text ? 9 : 8);
    variable.width = variable.text ? static_cast<int>(namelength) : file.type == doubles ? 8 : 4;
    file.place[v] = static_cast<int>(variable.text ? strings++ : numbers++);
  }
  file.numbers.reset(numbers);
  file.strings.reset(strings);
}

// The next bytes of the record, over the ends of its segments.
bool takebytes(SystatFile& file, std::FILE* stream, void* to, std::size_t count) {
  if (!file.segmented) return readchk(to, count, stream) == 1;
  char* at = static_cast<char*>(to);
  while (count > 0) {
    if (file.left == 0) {
      unsigned char marks[2];
      if (readchk(marks, sizeof marks, stream) == 0) return false;
      file.left = std::min<std::size_t>(marks[1], segmentlength);
    }
    const std::size_t part = std::min(count, file.left);
    if (readchk(at, part, stream) == 0) return false;
    at += part;
    count -= part;
    file.left -= part;
  }
  return true;
}

bool takenumber(SystatFile& file, std::FILE* stream, double& value) {
  if (file.type == doubles) {
    if (!takebytes(file, stream, &value, sizeof value)) return false;
  } else {
    float single = 0.0F;
    if (!takebytes(file, stream, &single, sizeof single)) return false;
    value = single <= -1.0e36F ? missingcode : static_cast<double>(single);
  }
  if (!std::isfinite(value)) value = missingcode;
  return true;
}

// The values of the record whose mark was read, and the byte behind them. False when they are not whole.
bool takevalues(SystatFile& file, std::FILE* stream) {
  for (double& value : file.numbers)
    if (!takenumber(file, stream, value)) return false;
  for (SystatText& text : file.strings)
    if (!takebytes(file, stream, text.bytes, namelength)) return false;
  (void)std::getc(stream);
  return true;
}

void tellend(int level, int mark) {
  const std::string& name = raw.level[level].filename;
  if (mark == endmark) return;
  countextra();
  if (mark == EOF) {
    logboth("%s may be cut short: no end mark follows its record %lld.\n", name.c_str(), files[level].records);
  } else {
    logboth("%s ends in the middle of record %lld. That record does not count.\n", name.c_str(),
            files[level].records + 1);
  }
}

Id idof(const SystatFile& file, std::size_t row) {
  const auto place = static_cast<std::size_t>(file.place[row]);
  Id id{};
  if (run.mdm.numericids) {
    id.number = numericid(file.numbers[place]);
  } else {
    id.text = textid({file.strings[place].bytes, namelength});
  }
  return id;
}

}  // namespace

void opensystat(int level) {
  LevelSource& source = raw.level[level];
  source.stream = openfile(source.filename, "rb");
  files[level] = SystatFile{};
  systathead(level);
}

void preparesystat(int level) { settlevariables(level); }

int systatrecord(int level, double* values, Id* id3, Id* id2) {
  SystatFile& file = files[level];
  const LevelSource& source = raw.level[level];
  const int mark = std::getc(source.stream);
  file.segmented = mark == longmark;
  file.left = segmentlength;
  if (mark == EOF || !takevalues(file, source.stream)) {
    if (std::ferror(source.stream)) stopwith("Unable to read %s\n", source.filename.c_str());
    tellend(level, mark);
    return 1;
  }
  ++file.records;
  for (const int mark3 : {level3idmark, level2idmark}) {
    Id* id = mark3 == level3idmark ? id3 : id2;
    const int row = idrow(source, mark3);
    if (id != nullptr && row >= 0) *id = idof(file, static_cast<std::size_t>(row));
  }
  for (const int row : source.chosen)
    *values++ = file.numbers[static_cast<std::size_t>(file.place[static_cast<std::size_t>(row)])];
  return 0;
}

void closesystat(int level) {
  LevelSource& source = raw.level[level];
  if (source.stream != nullptr) std::fclose(source.stream);
  source.stream = nullptr;
  files[level] = SystatFile{};
}

}  // namespace kdr
