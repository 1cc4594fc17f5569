#include "construct/readers/ascii.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "construct/buildlog.h"
#include "construct/rawvariables.h"
#include "construct/readers/plainnumber.h"
#include "construct/readers/textstream.h"
#include "core/constants.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr int maxidwidth = 12;
constexpr std::size_t mostshown = 60;  // bytes of a field in a message
constexpr int mostcount = 1000000000;  // a longer number in a format counts as this

// The format of one level, its text, and what the records so far gave cause to tell.
struct AsciiLevel {
  TextStream text;
  char format[maxformat];
  std::size_t items;             //
  FormatItem item[maxformat];    //
  std::size_t start[maxformat];  // where each begins in the format text
  long long crossing;            // records that took bytes of more lines than the format has
  long long firstcrossing;       // line on which the first of them starts
  bool firstblank;               // that line is empty
  long long lettersline;         // first line with letters of several bytes in front of a value
};

AsciiLevel levels[3];

int addigit(int number, char digit) { return std::min(number, (mostcount - 9) / 10) * 10 + (digit - '0'); }

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

// Any other field: a number in decimal notation with nothing but blanks around it, or blanks alone, which are a missing
// value. False for any other text, and for a number that no double can hold.
[[gnu::noinline]] bool othernumber(const char* bytes, std::size_t width, double& value) {
  if (isblank(bytes, width)) {
    value = missingcode;
    return true;
  }
  std::string field(bytes, width);
  const auto blanks = std::string_view(" \t\n\v\f\r");
  field.erase(field.find_last_not_of(blanks) + 1);
  field.erase(0, field.find_first_not_of(blanks));
  if (field.find_first_not_of("+-.0123456789eE") != field.npos) return false;
  char* end = nullptr;
  value = std::strtod(field.c_str(), &end);
  return *end == '\0' && std::isfinite(value);
}

// The record in hand, while it is read.
struct RecordInHand {
  int level;
  int idfields;  // IDs of this level
  int wanted;    // values and IDs still to come
  int openids;   // IDs still to come
  Id* id3;
  Id* id2;
  double* values;
  int stored = 0;          // values so far
  bool found = false;      // something but blanks was read
  bool crossing = false;   // a field or a skip took the end of a line
  long long lines = 0;     // line ends so far
  std::size_t column = 0;  // bytes of the line in hand so far
  char before = 0;         // last byte of the IDs and skips so far
};

// Counts the bytes of a field or of a skip.
void passbytes(RecordInHand& record, const char* bytes, std::size_t width) {
  const char* end = bytes + width;
  record.column += width;
  for (const char* at = bytes;
       (at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)))) != nullptr;) {
    ++at;
    ++record.lines;
    record.crossing = true;
    record.column = static_cast<std::size_t>(end - at);
  }
}

// A letter that UTF-8 writes in several bytes, in columns in front of the values, moves them from their place.
// One may stand in several pieces: each X of 4X is one.
void lookforletters(AsciiLevel& ascii, RecordInHand& record, const char* bytes, std::size_t width) {
  if (ascii.lettersline != 0) return;
  const auto lead = [](char c) {
    return static_cast<unsigned char>(c) >= 0xC2 && static_cast<unsigned char>(c) <= 0xF4;
  };
  for (std::size_t i = 0; i < width; ++i) {
    const char before = std::exchange(record.before, bytes[i]);
    if (lead(before) && (static_cast<unsigned char>(bytes[i]) & 0xC0U) == 0x80U) {
      ascii.lettersline = recordline(ascii.text) + record.lines;
      countextra();
      logboth(
          "Line %lld of %s has letters of more than one byte in front of its values. Fields count bytes, not "
          "letters.\n",
          ascii.lettersline, raw.level[record.level].filename.c_str());
      return;
    }
  }
}

[[noreturn]] void mismatch(AsciiLevel& ascii, const RecordInHand& record, std::string_view field, std::size_t i) {
  stopwith("\nData do not match format at %s\nLine %lld of %s holds \"%s\" in columns %zu to %zu.\n",
           ascii.format + ascii.start[i], recordline(ascii.text) + record.lines,
           raw.level[record.level].filename.c_str(), printable(field.substr(0, mostshown)).c_str(), record.column + 1,
           record.column + field.size());
}

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
  lookforletters(ascii, record, bytes, width);
  passbytes(record, bytes, width);
  Id* id = record.openids == record.idfields ? record.id3 : record.id2;
  if (std::memchr(bytes, '\0', width) != nullptr) refusezeros({bytes, width});
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
  if (!plainnumber(bytes, width, value)) {
    if (!othernumber(bytes, width, value)) mismatch(ascii, record, {bytes, width}, i);
    passbytes(record, bytes, width);  // a plain number has no line end in it
  } else {
    record.column += width;
  }
  record.found = record.found || value != missingcode;
  record.values[record.stored++] = value;
  --record.wanted;
  return 0;
}

// Takes item i of the format as often as it is to be repeated. -1 at the end of the file.
int takeitem(AsciiLevel& ascii, RecordInHand& record, const FormatItem& item, std::size_t i) {
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
      ++record.lines;
      record.column = 0;
    } else if (item.kind == FormatKind::x) {
      const auto width = static_cast<std::size_t>(item.width);
      const char* bytes = takebytes(ascii.text, width);
      if (bytes == nullptr) {
        result = cutrecord(ascii, record, width);
      } else {
        lookforletters(ascii, record, bytes, width);
        passbytes(record, bytes, width);
      }
    } else {
      result = takevalue(ascii, record, item, i);
    }
    if (result != 0) return result;
  }
  return 0;
}

// A record that takes bytes of a line which its format does not give it, and takes that line from another record.
void countcrossing(AsciiLevel& ascii, int level) {
  if (++ascii.crossing == 1) {
    ascii.firstcrossing = recordline(ascii.text);
    ascii.firstblank = ascii.text.recordline == 0 && ascii.text.buffer[ascii.text.recordat] == '\n';
  }
  if (run.mdm.l1missing) return;
  tellcrossing(level);
  logboth("Unable to continue with data that are declared to be complete.\n");
  stoprun(100);
}

int endrecords(int level) {
  tellcrossing(level);
  return -1;
}

}  // namespace

void tellcrossing(int level) {
  AsciiLevel& ascii = levels[level];
  if (ascii.crossing == 0) return;
  countextra();
  logboth("Records of %s that took fields from the next line: %lld. The first one starts in line %lld, which is %s.\n",
          raw.level[level].filename.c_str(), ascii.crossing, ascii.firstcrossing,
          ascii.firstblank ? "blank" : "too short");
  ascii.crossing = 0;
}

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
  std::string text = format;
  for (char* at = text.data(); *at != '\0';) {
    const FormatItem item = nextitem(at);
    at += item.consumed;
    if (item.unusable != '\0') std::printf(" Unusable format type: %c\n", item.unusable);
    if (item.twice) std::printf("Something wrong. 2 format codes\n");
    if (item.kind == FormatKind::none && item.unusable == '\0')
      std::printf("problem with format\n%s\n", format.c_str());
    if (item.kind == FormatKind::none || item.unusable != '\0' || item.twice) return false;
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
      item.twice = item.twice || letter;
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
        default:
          if (item.unusable == '\0') item.unusable = *p;
      }
    } else if (*p != ' ' && *p != '(') {
      if (item.unusable == '\0') item.unusable = *p;
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
  RecordInHand record{level, idfields, numvar + idfields, idfields, id3, id2, values};
  startrecord(ascii.text);
  for (std::size_t i = 0; i < ascii.items && record.wanted > 0; ++i)
    if (takeitem(ascii, record, ascii.item[i], i) != 0) return endrecords(level);
  if (record.openids > 0) {
    if (record.openids == idfields) id3->text = paddedname("", maxidwidth);
    if (idfields == 2) id2->text = paddedname("", maxidwidth);
  }
  std::fill(values + record.stored, values + numvar, missingcode);
  if (skipline(ascii.text, maxfield)) {
    if (record.crossing && record.found) countcrossing(ascii, level);
    return 0;
  }
  if (record.found) {
    countextra();
    logboth("The last record of %s (line %lld) does not count: no line end follows it.\n",
            raw.level[level].filename.c_str(), recordline(ascii.text));
  }
  return endrecords(level);
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
  ascii.items = 0;
  for (std::size_t at = 0; ascii.format[at] != '\0'; ++ascii.items) {
    ascii.start[ascii.items] = at;
    ascii.item[ascii.items] = nextitem(ascii.format + at);
    at += static_cast<std::size_t>(ascii.item[ascii.items].consumed);
  }
  ascii.crossing = ascii.lettersline = 0;
  run.mdm.numericids = false;
}

int asciirecordof(int level, double* values, Id* id3, Id* id2) {
  return asciirecord(level, level == 2 || run.mdm.twolevel() ? 1 : 2, id3, id2, values);
}

void closeascii(int level) {
  closestream(level);
  levels[level].text.buffer.reset(0);
}

}  // namespace kdr
