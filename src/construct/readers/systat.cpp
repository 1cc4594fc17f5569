#include "construct/readers/systat.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "construct/buildlog.h"
#include "construct/rawvariables.h"
#include "construct/readers/bytereader.h"
#include "core/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr std::size_t segmentlength = 128;
constexpr std::size_t namelength = 12;
constexpr std::size_t commentlength = 74;
constexpr unsigned char longmark = 0x81;  // of a segment that another one follows; the last one's mark is its length
constexpr unsigned char endmark = 0x82;   // stands behind the last record
constexpr int singles = 1;
constexpr int doubles = 2;

// The file of one level.
struct SystatFile {
  ByteReader bytes;
  int type = 0;                 // singles or doubles
  Array<std::size_t> place;     // of each variable in the record: all numbers stand before all texts
  Array<unsigned char> record;  // the one in hand, without the marks
  long long records = 0;        // that were read
  bool ended = false;
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
  source.vartable.assign(count, RawVariable{});
  file.place.reset(count);
  std::size_t length = 0;
  for (RawVariable& variable : source.vartable) {
    const std::string name = readname(level);
    variable.text = name.find('$') != std::string::npos;
    namevariable(variable, name, variable.text ? 9 : 8);
    variable.width = variable.text ? static_cast<int>(namelength) : file.type == doubles ? 8 : 4;
  }
  for (const bool text : {false, true})
    for (std::size_t v = 0; v < count; ++v) {
      if (source.vartable[v].text != text) continue;
      file.place[v] = length;
      length += static_cast<std::size_t>(source.vartable[v].width);
    }
  file.record.reset(length);
}

// What a try to read a record finds.
enum class Found { record, end, noendmark, cut, damage };

// Brings the next record together from its segments, each of which has its mark before and behind it. The byte behind
// the last segment may be cut off.
Found fillrecord(SystatFile& file) {
  std::size_t filled = 0;
  while (filled < file.record.size()) {
    const unsigned char* mark = takebytes(file.bytes, 1);
    if (mark == nullptr) return filled == 0 ? Found::noendmark : Found::cut;
    if (filled == 0 && *mark == endmark) return Found::end;
    const std::size_t left = file.record.size() - filled;
    const std::size_t length = std::min(left, segmentlength);
    const std::size_t expected = left > segmentlength ? longmark : length;
    if (*mark != expected) return Found::damage;
    const unsigned char* bytes = takebytes(file.bytes, length);
    if (bytes == nullptr) return Found::cut;
    std::memcpy(file.record.data() + filled, bytes, length);
    filled += length;
    mark = takebytes(file.bytes, 1);
    if (mark != nullptr && *mark != expected) return Found::damage;
  }
  return Found::record;
}

void tellend(int level, Found found) {
  const char* name = raw.level[level].filename.c_str();
  const long long records = files[level].records;
  if (found == Found::end) return;
  countextra();
  if (found == Found::noendmark) {
    logboth("%s may be cut short: no end mark follows its record %lld.\n", name, records);
  } else if (found == Found::cut) {
    logboth("%s ends in the middle of record %lld. That record does not count.\n", name, records + 1);
  } else {
    logboth("%s is damaged: a length mark of record %lld is wrong. Neither that record nor what follows it counts.\n",
            name, records + 1);
  }
}

double numberof(const SystatFile& file, int row) {
  const unsigned char* bytes = file.record.data() + file.place[static_cast<std::size_t>(row)];
  double value = 0.0;
  if (file.type == doubles) {
    value = lowfirst<double>(bytes);
  } else {
    const auto single = lowfirst<float>(bytes);
    value = single <= -1.0e36F ? missingcode : static_cast<double>(single);
  }
  return std::isfinite(value) ? value : missingcode;
}

Id idof(const SystatFile& file, int row) {
  Id id{};
  if (run.mdm.numericids) {
    id.number = numericid(numberof(file, row));
  } else {
    const unsigned char* text = file.record.data() + file.place[static_cast<std::size_t>(row)];
    id.text = textid({reinterpret_cast<const char*>(text), namelength});
  }
  return id;
}

}  // namespace

void opensystat(int level) {
  LevelSource& source = raw.level[level];
  files[level] = SystatFile{};
  source.stream = startbytes(files[level].bytes, source.filename);
  systathead(level);
}

int systatrecord(int level, double* values, Id* id3, Id* id2) {
  SystatFile& file = files[level];
  if (file.ended) return 1;
  if (const Found found = fillrecord(file); found != Found::record) {
    tellend(level, found);
    file.ended = true;
    return 1;
  }
  ++file.records;
  const LevelSource& source = raw.level[level];
  if (source.row3 >= 0) *id3 = idof(file, source.row3);
  if (source.row2 >= 0 && id2 != nullptr) *id2 = idof(file, source.row2);
  for (const int row : source.chosen) *values++ = numberof(file, row);
  return 0;
}

void closesystat(int level) {
  closestream(level);
  files[level] = SystatFile{};
}

}  // namespace kdr
