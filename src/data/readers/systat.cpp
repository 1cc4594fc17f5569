#include "data/readers/systat.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "data/buildlog.h"
#include "data/readers/bytereader.h"
#include "data/scratch.h"
#include "driver/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr std::size_t segmentlength = 128;
constexpr std::size_t namelength = 12;
constexpr std::size_t commentlength = 74;
constexpr int longmark = 0x81;  // the record goes on behind its first segment
constexpr int endmark = 0x82;   // stands behind the last record
constexpr int nomark = -1;      // nothing does
constexpr int singles = 1;
constexpr int doubles = 2;

struct SystatText {
  char bytes[namelength];
};

// The file of one level.
struct SystatFile {
  ByteReader bytes;
  int type = 0;               // singles or doubles
  Array<int> place;           // of each variable among the numbers or among the texts of the record
  Array<double> numbers;      // of the record in hand
  Array<SystatText> strings;  // likewise
  bool segmented = false;     // the record in hand has segments
  std::size_t left = 0;       // bytes of its segment that are still to come
  long long records = 0;      // that were read
  int row3 = -1, row2 = -1;   // rows of the ID columns
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
bool takecounts(ByteReader& bytes, Counts& counts) {
  std::int16_t variables = 0;
  std::int16_t filler = 0;
  std::int16_t type = 0;
  if (!takelow(bytes, variables) || !takelow(bytes, filler) || !takelow(bytes, type) || !skipbytes(bytes, 1))
    return false;
  counts = {variables, type};
  return true;
}

bool skipcomment(ByteReader& bytes) {
  const std::string last(72, '$');
  const unsigned char* record = nullptr;
  do {
    record = takebytes(bytes, commentlength);
  } while (record != nullptr && std::memcmp(record + 1, last.data(), last.size()) != 0);
  return record != nullptr;
}

// Reads the head up to the names: numvar and the type of the numbers.
void systatcount(int level) {
  LevelSource& source = raw.level[level];
  ByteReader& bytes = files[level].bytes;
  Counts counts{};
  bool whole = skipbytes(bytes, 2) && takecounts(bytes, counts);
  if (whole && counts.type < singles) whole = skipcomment(bytes) && skipbytes(bytes, 1) && takecounts(bytes, counts);
  if (!whole) damaged(level, "its head is not whole");
  if (counts.type != singles && counts.type != doubles) damaged(level, "its numbers are of no known type");
  if (counts.variables <= 0) damaged(level, "it tells no number of variables");
  source.numvar = counts.variables;
  files[level].type = counts.type;
}

// A name without the blanks before it, up to the first blank behind it.
std::string readname(int level) {
  const unsigned char* bytes = takebytes(files[level].bytes, namelength + 2);
  if (bytes == nullptr) damaged(level, "its names are not whole");
  std::string name(reinterpret_cast<const char*>(bytes) + 1, namelength);
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
bool takepart(SystatFile& file, void* to, std::size_t count) {
  auto* at = static_cast<unsigned char*>(to);
  while (count > 0) {
    if (file.left == 0) {
      const unsigned char* marks = takebytes(file.bytes, 2);
      if (marks == nullptr) return false;
      file.left = std::min<std::size_t>(marks[1], segmentlength);
    }
    const std::size_t part = file.segmented ? std::min(count, file.left) : count;
    const unsigned char* bytes = takebytes(file.bytes, part);
    if (bytes == nullptr) return false;
    at = std::copy_n(bytes, part, at);
    count -= part;
    if (file.segmented) file.left -= part;
  }
  return true;
}

bool takenumber(SystatFile& file, double& value) {
  unsigned char bytes[sizeof(double)];
  if (!takepart(file, bytes, file.type == doubles ? sizeof(double) : sizeof(float))) return false;
  if (file.type == doubles) {
    value = lowfirst<double>(bytes);
  } else {
    const auto single = lowfirst<float>(bytes);
    value = single <= -1.0e36F ? missingcode : static_cast<double>(single);
  }
  if (!std::isfinite(value)) value = missingcode;
  return true;
}

// The values of the record whose mark was read, and the byte behind them. False when they are not whole.
bool takevalues(SystatFile& file) {
  for (double& value : file.numbers)
    if (!takenumber(file, value)) return false;
  for (SystatText& text : file.strings)
    if (!takepart(file, text.bytes, namelength)) return false;
  (void)skipbytes(file.bytes, 1);
  return true;
}

void tellend(int level, int mark) {
  const std::string& name = raw.level[level].filename;
  if (mark == endmark) return;
  countextra();
  if (mark == nomark) {
    logboth("%s may be cut short: no end mark follows its record %lld.\n", name.c_str(), files[level].records);
  } else {
    logboth("%s ends in the middle of record %lld. That record does not count.\n", name.c_str(),
            files[level].records + 1);
  }
}

Id idof(const SystatFile& file, int row) {
  const auto place = static_cast<std::size_t>(file.place[static_cast<std::size_t>(row)]);
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
  startbytes(files[level].bytes, source.stream, source.filename);
  systathead(level);
}

void preparesystat(int level) {
  settlevariables(level);
  files[level].row3 = idrow(raw.level[level], level3idmark);
  files[level].row2 = idrow(raw.level[level], level2idmark);
}

int systatrecord(int level, double* values, Id* id3, Id* id2) {
  SystatFile& file = files[level];
  const unsigned char* first = takebytes(file.bytes, 1);
  const int mark = first == nullptr ? nomark : *first;
  file.segmented = mark == longmark;
  file.left = segmentlength;
  if (mark == nomark || !takevalues(file)) {
    tellend(level, mark);
    return 1;
  }
  ++file.records;
  if (file.row3 >= 0) *id3 = idof(file, file.row3);
  if (file.row2 >= 0 && id2 != nullptr) *id2 = idof(file, file.row2);
  for (const int row : raw.level[level].chosen)
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
