#include "data/readers/ascii.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "data/buildlog.h"
#include "data/readers/plainnumber.h"
#include "data/readers/textstream.h"
#include "data/scratch.h"
#include "driver/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr int maxidwidth = 12;
constexpr int mostcount = 1000000000;  // a longer number in a format counts as this

// The format of one level, read item by item as the records first reach them, and its text.
struct AsciiLevel {
  TextStream text;
  char format[maxformat];
  std::size_t parsed;            // characters of the format that items have taken
  std::size_t items;             // items so far
  FormatItem item[maxformat];    //
  std::size_t start[maxformat];  // where each begins in the format text
};

AsciiLevel levels[3];

int addigit(int number, char digit) { return std::min(number, (mostcount - 9) / 10) * 10 + (digit - '0'); }

// Item i of the format, or null when the format text has ended before it.
const FormatItem* itemat(AsciiLevel& ascii, std::size_t i) {
  if (i == ascii.items) {
    if (ascii.format[ascii.parsed] == '\0') return nullptr;
    ascii.start[i] = ascii.parsed;
    ascii.item[i] = nextitem(ascii.format + ascii.parsed);
    ascii.parsed += static_cast<std::size_t>(ascii.item[i].consumed);
    ++ascii.items;
  } else if (ascii.item[i].worded) {
    (void)nextitem(ascii.format + ascii.start[i]);  // an item speaks at each record that uses it
  }
  return &ascii.item[i];
}

bool isblank(const char* bytes, std::size_t width) {
  return std::all_of(bytes, bytes + width, [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); });
}

// True when the `n` bytes at the start of a field are blanks. The text stream lets eight bytes be read there.
bool blankstart(const char* bytes, std::size_t n) {
  if (n >= 8) return std::all_of(bytes, bytes + n, [](char c) { return c == ' '; });
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  const std::uint64_t others = word ^ 0x2020202020202020U;
  return (others & ((std::uint64_t{1} << (8 * n)) - 1)) == 0;
}

// A plain number with blanks around it.
bool plainnumber(const char* bytes, std::size_t width, double& value) {
  std::size_t before = 0;
  while (width > 0 && bytes[width - 1] == ' ') --width;
  return endsinnumber(bytes, width, value, before) && blankstart(bytes, before);
}

// Any other field.
[[gnu::noinline]] bool othernumber(const char* bytes, std::size_t width, double& value) {
  if (isblank(bytes, width)) {
    value = missingcode;
    return true;
  }
  char field[maxfield + 1];
  std::memcpy(field, bytes, width);
  field[width] = '\0';
  return std::sscanf(field, "%lf", &value) == 1 && std::isfinite(value);
}

// Converts a value field as the library's scan conversion does. A blank field is a missing value. False when the text
// is no number, or none that a double can hold.
bool convertfield(const char* bytes, std::size_t width, double& value) {
  return plainnumber(bytes, width, value) || othernumber(bytes, width, value);
}

[[noreturn]] void mismatch(const AsciiLevel& ascii, std::size_t i) {
  stopwith("\nData do not match format at %s\n", ascii.format + ascii.start[i]);
}

// The record in hand, while it is read.
struct RecordInHand {
  int level;
  int idfields;        // IDs of this level
  int wanted;          // values and IDs still to come
  int openids;         // IDs still to come
  int stored = 0;      // values so far
  bool found = false;  // something but blanks was read
  Id* id3;
  Id* id2;
  double* values;
};

// The record's bytes ran out. Says so when that loses anything.
int cutrecord(AsciiLevel& ascii, RecordInHand& record, std::size_t width) {
  TextStream& text = ascii.text;
  const std::size_t rest = std::min(width, text.have - text.at);
  if (!isblank(text.buffer.data() + text.at, rest)) record.found = true;
  text.at += rest;
  if (record.found) {
    countextra();
    logboth("%s ends in the middle of a record (line %lld). That record does not count.\n",
            raw.level[record.level].filename.c_str(), recordline(text));
  }
  return -1;
}

int takeid(AsciiLevel& ascii, RecordInHand& record, const FormatItem& item) {
  if (item.width > maxidwidth) stopwith("id must be 12 or fewer characters\n");
  if (record.openids == 0) stopwith("\nThere should only be %d ID field(s) specified!\n", record.idfields);
  const auto width = static_cast<std::size_t>(item.width);
  const char* bytes = takebytes(ascii.text, width);
  if (bytes == nullptr) return cutrecord(ascii, record, width);
  record.found = record.found || !isblank(bytes, width);
  Id* id = record.openids == record.idfields ? record.id3 : record.id2;
  id->text = paddedname(std::string_view(bytes, width), maxidwidth);
  --record.openids;
  --record.wanted;
  return 0;
}

int takevalue(AsciiLevel& ascii, RecordInHand& record, const FormatItem& item, std::size_t i) {
  if (record.stored == raw.level[record.level].numvar)
    stopwith("\nThe format of the level-%d file yields more than %d values!\n", record.level + 1, record.stored);
  const auto width = static_cast<std::size_t>(item.width);
  const char* bytes = takebytes(ascii.text, width);
  if (bytes == nullptr) return cutrecord(ascii, record, width);
  double value = 0.0;
  if (!convertfield(bytes, width, value)) mismatch(ascii, i);
  record.found = record.found || value != missingcode;
  record.values[record.stored++] = value;
  --record.wanted;
  return 0;
}

// Takes item i of the format as often as it is to be repeated. -1 at the end of the file.
int takeitem(AsciiLevel& ascii, RecordInHand& record, const FormatItem& item, std::size_t i) {
  if (item.kind == FormatKind::none) {
    std::printf("problem with format\n%s\n", ascii.format);
    return 0;
  }
  const bool field = item.kind != FormatKind::slash && item.kind != FormatKind::a;
  if (field && static_cast<std::size_t>(item.width) > maxfield)
    stopwith("\nThe format of the level-%d file has a field of more than %d characters!\n", record.level + 1,
             static_cast<int>(maxfield));
  for (int n = 0; n < item.count && record.wanted > 0; ++n) {
    int result = 0;
    if (item.kind == FormatKind::a) {
      result = takeid(ascii, record, item);
    } else if (item.kind == FormatKind::slash) {
      if (!skipline(ascii.text, static_cast<std::size_t>(-1))) break;
    } else if (item.kind == FormatKind::x) {
      const auto width = static_cast<std::size_t>(item.width);
      if (takebytes(ascii.text, width) == nullptr) result = cutrecord(ascii, record, width);
    } else {
      result = takevalue(ascii, record, item, i);
    }
    if (result != 0) return result;
  }
  return 0;
}

}  // namespace

bool checkformat(const std::string& format) {
  if (format.empty() || format.front() != '(') {
    std::printf(" First character of format must be (\n");
    return false;
  }
  if (format.size() < 2 || format.back() != ')') {
    std::printf(" Last character of format must be )\n");
    return false;
  }
  const std::string inside = format.substr(1, format.size() - 2);
  if (inside.find_first_of("()") != std::string::npos) {
    std::printf(" Sorry, no nesting of format allowed. Please expand the format.\n");
    return false;
  }
  for (std::size_t i = 0; i < format.size(); ++i)
    if (format[i] == '/' && (format[i - 1] != ',' || format[i + 1] != ',')) {
      std::printf(" Slashes must be surrounded by ,");
      return false;
    }
  return true;
}

FormatItem nextitem(char* format) {
  FormatItem item;
  item.count = item.width = 0;
  bool letter = false;
  char* p = format;
  while (*p != '\0' && *p != ',' && *p != ')') {
    const bool decimals = item.kind == FormatKind::e || item.kind == FormatKind::f || item.kind == FormatKind::g;
    if (*p == '.' && decimals) {
      p += std::strcspn(p, ",)");
      break;
    }
    if (*p == '/') {
      item.kind = FormatKind::slash;
    } else if (*p >= '0' && *p <= '9') {
      int& number = letter ? item.width : item.count;
      number = addigit(number, *p);
    } else if (std::isalpha(static_cast<unsigned char>(*p))) {
      *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
      if (letter) {
        std::printf("Something wrong. 2 format codes\n");
        item.worded = true;
      }
      letter = true;
      switch (*p) {
        case 'A':
          item.kind = FormatKind::a;
          break;
        case 'F':
          item.kind = FormatKind::f;
          break;
        case 'E':
          item.kind = FormatKind::e;
          break;
        case 'G':
          item.kind = FormatKind::g;
          break;
        case 'X':
          item.kind = FormatKind::x;
          break;
        default: {
          const char word[2] = {*p, '\0'};
          std::printf(" Unusable format type: %s\n", word);
          item.worded = true;
        }
      }
    }
    ++p;
  }
  if (*p != '\0') ++p;
  item.consumed = static_cast<int>(p - format);
  if (item.count == 0) item.count = 1;
  if (item.width == 0) item.width = 1;
  return item;
}

int asciirecord(int level, int idfields, Id* id3, Id* id2, double* values) {
  AsciiLevel& ascii = levels[level];
  const int numvar = raw.level[level].numvar;
  RecordInHand record{level, idfields, numvar + idfields, idfields, 0, false, id3, id2, values};
  startrecord(ascii.text);
  for (std::size_t i = 0; record.wanted > 0; ++i) {
    const FormatItem* item = itemat(ascii, i);
    if (item == nullptr) break;
    if (takeitem(ascii, record, *item, i) != 0) return -1;
  }
  if (record.openids > 0) {
    if (record.openids == idfields) id3->text = paddedname("", maxidwidth);
    if (idfields == 2) id2->text = paddedname("", maxidwidth);
  }
  std::fill(values + record.stored, values + numvar, missingcode);
  if (skipline(ascii.text, maxfield)) return 0;
  if (record.found) {
    countextra();
    logboth("The last record of %s (line %lld) does not count: no line end follows it.\n",
            raw.level[level].filename.c_str(), recordline(ascii.text));
  }
  return -1;
}

void openascii(int level) {
  LevelSource& source = raw.level[level];
  source.stream = openfile(source.filename, "r");
}

void prepareascii(int level) {
  LevelSource& source = raw.level[level];
  AsciiLevel& ascii = levels[level];
  source.selected = source.numvar;
  starttext(ascii.text, source.stream, source.filename);
  std::memset(ascii.format, 0, sizeof ascii.format);
  source.format.copy(ascii.format, sizeof ascii.format - 1);
  ascii.parsed = ascii.items = 0;
  run.mdm.numericids = false;
}

int asciirecordof(int level, double* values, Id* id3, Id* id2) {
  return asciirecord(level, level == 2 ? 1 : 2, id3, id2, values);
}

void closeascii(int level) {
  closestream(level);
  levels[level].text.buffer.reset(0);
}

}  // namespace kdr
