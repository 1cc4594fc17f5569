#include "construct/readers/spss.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "construct/buildlog.h"
#include "construct/rawvariables.h"
#include "construct/readers/bytereader.h"
#include "core/constants.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr std::size_t slotsize = 8;
constexpr std::size_t variablesize = 32;  // bytes of the shortest variable record
constexpr int mostlayout = 3;
constexpr int slotsunknown = -1;  // in the head, by some writers
constexpr int codesinblock = 8;
constexpr int longnames = 13;      // subtype of the extension record on names
constexpr int longstrings = 14;    // subtype of the extension record on very long strings
constexpr int segmentwidth = 252;  // bytes of such a string in each of its variables

// Codes of a compressed case; those from 1 to 251 are values. Some writers fill the last block of each case up with
// zeros, others only the last block of the file.
enum Code : unsigned char { codefiller = 0, codeend = 252, codevalue = 253, codeblank = 254, codemissing = 255 };

using Slot = std::array<unsigned char, slotsize>;
constexpr Slot blankslot = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

// Values that count as missing in a variable.
struct MissingList {
  double value[3];
  int count;  // 0 none, 1 to 3 single values, -2 a range value[0] to value[1], -3 such a range and value[2]
};

struct SpssFile {
  ByteReader bytes;
  int numslots = 0;  // of a case
  int compressed = 0;
  double bias = 100.0;                // of the codes that are values
  int numcases = 0;                   // as the head states it; below 0: not known
  long long data = 0;                 // where the cases begin
  Array<MissingList> missing;         // [numslots]
  Array<int> textwidth;               // [numslots]: bytes of a string that its slots can hold
  Array<Slot> slots;                  // the case in hand
  Array<Slot> blank;                  // what a slot holds that is all blanks: 0.0 in a numeric variable
  const RawVariable* rows = nullptr;  // the variable table, while cases are read
  unsigned char codes[8] = {};        // the block of codes in use
  int ctlpos = codesinblock;          // next code of it
  long long nread = 0;                // whole cases
  bool ended = false;
};

SpssFile files[3];

// The head and the dictionary.

[[noreturn]] void notspss(int level, const char* why = "") {
  std::printf("The level-%d file does not seem to be a %s file!\n%s", level + 1, "SPSS", why);
  fail(1, raw.level[level].filename.c_str());
}

[[noreturn]] void strangeheader(int level) {
  std::printf("The level-%d SPSS has a strange header.\n", level + 1);
  fail(1, raw.level[level].filename.c_str());
}

// Passes over the label behind a variable record, where there is one. False when it is not whole.
bool skiplabel(ByteReader& bytes, const unsigned char* record) {
  const bool haslabel = lowfirst<std::int32_t>(record + 8) != 0;
  std::int32_t length = 0;
  return !haslabel || (takelow(bytes, length) && length >= 0 && skipbytes(bytes, (length + 3LL) / 4 * 4));
}

// How many variable records follow one another from here on.
int countslots(ByteReader& bytes) {
  const long long start = byteposition(bytes);
  int count = 0;
  for (;;) {
    const unsigned char* record = takebytes(bytes, variablesize);
    if (record == nullptr || lowfirst<std::int32_t>(record) != 2) break;
    ++count;
    const long long nmissing = lowfirst<std::int32_t>(record + 12);
    if (!skiplabel(bytes, record) || !skipbytes(bytes, static_cast<long long>(sizeof(double)) * std::abs(nmissing)))
      break;
  }
  seekbytes(bytes, start);
  return count;
}

void readhead(int level) {
  SpssFile& file = files[level];
  ByteReader& bytes = file.bytes;
  const unsigned char* magic = takebytes(bytes, 4);
  if (magic != nullptr && std::memcmp(magic, "$FL3", 4) == 0)
    notspss(level, "It is one that is compressed as a whole. Please save it as an ordinary .sav file.\n");
  if (magic == nullptr || std::memcmp(magic, "$FL2", 4) != 0) notspss(level);
  const unsigned char* head = takebytes(bytes, 60 + 28);
  if (head == nullptr || !skipbytes(bytes, 84)) notspss(level);
  const auto layout = lowfirst<std::int32_t>(head + 60);
  if (layout > mostlayout) {
    const auto turned = highfirst<std::int32_t>(head + 60);
    const bool bigendian = turned > 0 && turned <= mostlayout;
    notspss(level, bigendian ? "It was written by a machine that stores the high byte first. "
                               "Please save it anew on this kind of machine.\n"
                             : "");
  }
  file.numslots = lowfirst<std::int32_t>(head + 64);
  file.compressed = lowfirst<std::int32_t>(head + 68);
  file.numcases = lowfirst<std::int32_t>(head + 76);
  file.bias = lowfirst<double>(head + 80);
  if (file.numslots == slotsunknown) file.numslots = countslots(bytes);
  const auto room = bytesleft(bytes) / static_cast<long long>(variablesize);
  if (file.numslots < 0 || file.numslots > room) strangeheader(level);
}

// One of the variable records. Returns 1 for a variable, 0 for the continuation of a string.
int readvariable(int level, std::size_t slot) {
  SpssFile& file = files[level];
  ByteReader& bytes = file.bytes;
  const unsigned char* record = takebytes(bytes, variablesize);
  if (record == nullptr || lowfirst<std::int32_t>(record) != 2) notspss(level);
  const auto type = lowfirst<std::int32_t>(record + 4);
  const auto nmissing = lowfirst<std::int32_t>(record + 12);
  RawVariable& variable = raw.level[level].vartable[slot];
  variable.text = type != 0;
  variable.hidden = type < 0;
  variable.width = type <= 1 ? static_cast<int>(slotsize) : type;
  namevariable(variable, std::string_view(reinterpret_cast<const char*>(record) + 24, 8));
  if (!skiplabel(bytes, record)) strangeheader(level);
  MissingList& missing = file.missing[slot];
  if (nmissing < -3 || nmissing == -1 || nmissing > 3) strangeheader(level);
  missing.count = nmissing;
  for (int i = 0; i < std::abs(nmissing); ++i)
    if (!takelow(bytes, missing.value[i])) strangeheader(level);
  return type == -1 ? 0 : 1;
}

// A list of labels, and the slots of the variables that it belongs to.
void takelabels(int level) {
  ByteReader& bytes = files[level].bytes;
  std::int32_t count = 0;
  std::string labels;
  if (!takelow(bytes, count)) strangeheader(level);
  for (std::int32_t i = 0; i < count; ++i) {
    double value = 0.0;
    unsigned char length = 0;
    if (!takelow(bytes, value) || !takelow(bytes, length)) strangeheader(level);
    const unsigned char* label = takebytes(bytes, static_cast<std::size_t>((length + 8) / 8 * 8 - 1));
    if (label == nullptr) strangeheader(level);
    addlabel(labels, value, {reinterpret_cast<const char*>(label), length});
  }
  std::int32_t type = 0;
  if (!takelow(bytes, type) || type != 4 || !takelow(bytes, count)) strangeheader(level);
  std::vector<RawVariable>& rows = raw.level[level].vartable;
  for (std::int32_t i = 0; i < count; ++i) {
    std::int32_t slot = 0;
    if (!takelow(bytes, slot)) strangeheader(level);
    if (slot >= 1 && static_cast<std::size_t>(slot) <= rows.size())
      rows[static_cast<std::size_t>(slot) - 1].labels = labels;
  }
}

void skipdocument(int level) {
  std::int32_t lines = 0;
  if (!takelow(files[level].bytes, lines) || !skipbytes(files[level].bytes, 80LL * lines)) strangeheader(level);
}

// The record of very long strings, "NAME=WIDTH" and a zero and a tab for each: hides the variables that only hold the
// later segments of one. A segment has 252 bytes of the string.
void hidesegments(int level, std::string_view list) {
  std::vector<RawVariable>& rows = raw.level[level].vartable;
  std::size_t row = 0;  // the strings stand in the order of the file
  while (!list.empty()) {
    const std::string_view entry = list.substr(0, list.find('\0'));
    list.remove_prefix(std::min(list.size(), entry.size() + 1));
    list.remove_prefix(std::min(list.size(), list.find_first_not_of('\t')));
    const std::size_t equals = entry.find('=');
    if (equals == std::string_view::npos) return;
    const Name name = paddedname(entry.substr(0, equals));
    const int width = std::atoi(std::string(entry.substr(equals + 1, 9)).c_str());
    while (row < rows.size() && (rows[row].hidden || !samename(rows[row].name, name))) ++row;
    for (int more = (width - 1) / segmentwidth; more > 0 && row + 1 < rows.size();) {
      RawVariable& next = rows[++row];
      if (next.hidden) continue;
      if (!next.text) break;
      next.hidden = true;
      --more;
    }
  }
}

// The record of long names, "SHORT=long" with a tab between them.
void takelongnames(int level, std::string_view list) {
  std::map<std::string, RawVariable*> rows;
  for (RawVariable& variable : raw.level[level].vartable)
    if (!variable.hidden) rows.emplace(variable.name.text, &variable);
  while (!list.empty()) {
    const std::string_view entry = list.substr(0, list.find('\t'));
    list.remove_prefix(std::min(list.size(), entry.size() + 1));
    const std::size_t equals = entry.find('=');
    if (equals == std::string_view::npos) continue;
    const auto row = rows.find(paddedname(entry.substr(0, equals)).text);
    const Name name = row == rows.end() ? Name{} : row->second->name;
    if (row == rows.end()) continue;
    namevariable(*row->second, entry.substr(equals + 1));
    row->second->name = name;
  }
}

void readextension(int level) {
  ByteReader& bytes = files[level].bytes;
  std::int32_t subtype = 0;
  if (!takelow(bytes, subtype)) strangeheader(level);
  if (subtype < 3 || subtype > 24) {
    std::printf("Invalid dictionary subtype %d in SPSS level-%d file.  This is\n", subtype, level + 1);
    std::printf("probably due to a new version of SPSS that KDR does not know about yet.\n");
    fail(1, raw.level[level].filename.c_str());
  }
  if (subtype == 9) {  // may stand without size and count: then the next record follows at once
    std::size_t got = 0;
    const unsigned char* next = peekbytes(bytes, 4, got);
    const std::int32_t type = got == 4 ? lowfirst<std::int32_t>(next) : 0;
    if (type == 3 || type == 6 || type == 7 || type == 999) return;
  }
  std::int32_t size = 0;
  std::int32_t count = 0;
  if (!takelow(bytes, size) || !takelow(bytes, count) || size < 0 || count < 0) strangeheader(level);
  const long long length = static_cast<long long>(size) * count;
  if (subtype == longstrings || subtype == longnames) {
    const unsigned char* list =
        length > bytesleft(bytes) ? nullptr : takebytes(bytes, static_cast<std::size_t>(length));
    if (list == nullptr) strangeheader(level);
    const std::string_view text(reinterpret_cast<const char*>(list), static_cast<std::size_t>(length));
    if (subtype == longstrings) hidesegments(level, text);
    if (subtype == longnames) takelongnames(level, text);
  } else if (!skipbytes(bytes, length)) {
    strangeheader(level);
  }
}

// Bytes that each string has room for: its own slot and those that continue it. What a slot holds that is all blanks.
void settextslots(int level) {
  SpssFile& file = files[level];
  const std::vector<RawVariable>& rows = raw.level[level].vartable;
  int room = 0;
  for (std::size_t slot = rows.size(); slot-- > 0;) {
    room += static_cast<int>(slotsize);
    file.textwidth[slot] = std::min(rows[slot].width, room);
    if (!rows[slot].hidden) room = 0;
    if (rows[slot].text) file.blank[slot] = blankslot;
  }
}

void readdictionary(int level) {
  SpssFile& file = files[level];
  const auto numslots = static_cast<std::size_t>(file.numslots);
  raw.level[level].vartable.assign(numslots, RawVariable{});
  file.missing.reset(numslots);
  file.textwidth.reset(numslots);
  file.slots.reset(numslots);
  file.blank.reset(numslots);
  int variables = 0;
  for (std::size_t slot = 0; slot < numslots; ++slot) variables += readvariable(level, slot);
  for (;;) {
    std::int32_t type = 0;
    if (!takelow(file.bytes, type)) strangeheader(level);
    if (type == 999) break;
    if (type == 3) {
      takelabels(level);
    } else if (type == 6) {
      skipdocument(level);
    } else if (type == 7) {
      readextension(level);
    } else {
      strangeheader(level);
    }
  }
  if (!skipbytes(file.bytes, 4)) strangeheader(level);
  file.data = byteposition(file.bytes);
  if (variables <= 1) fail(1, raw.level[level].filename.c_str());
  settextslots(level);
}

// The cases.

enum class Ending { code, file, incase };  // by its code, with the file, or in the middle of a case

// The data are over. Tells where they are not as the head states them; a part of a case behind the last of the stated
// ones is filler.
int enddata(SpssFile& file, Ending ending) {
  file.ended = true;
  const bool known = file.numcases >= 0;
  if (file.nread < file.numcases || (ending == Ending::incase && file.nread != file.numcases)) {
    reportbroken(file.bytes, file.nread + 1, ending == Ending::incase, file.numcases);
  } else if (known && file.nread > file.numcases) {
    countextra();
    logboth("%s holds %lld cases, more than the %d that it states. All of them count.\n", file.bytes.name.c_str(),
            file.nread, file.numcases);
  } else if (!known && file.compressed != 0 && ending == Ending::file) {
    countextra();
    logboth("%s may be cut short: no code for the end follows its case %lld.\n", file.bytes.name.c_str(), file.nread);
  }
  return 1;
}

// Reads the slots of the next case; not 0 at the end of the data.
int readplain(SpssFile& file) {
  const std::size_t width = file.slots.size() * slotsize;
  const unsigned char* bytes = takebytes(file.bytes, width);
  if (bytes == nullptr) return enddata(file, bytesleft(file.bytes) > 0 ? Ending::incase : Ending::file);
  std::memcpy(file.slots.data(), bytes, width);
  return 0;
}

// The bytes of a compressed case as they are looked at.
struct Window {
  const unsigned char* from;
  const unsigned char* next;
  const unsigned char* end;
};

// The window from the reader's place on, wide enough for all the values of a case and the blocks of codes before,
// between and behind them.
Window startwindow(SpssFile& file) {
  const std::size_t numslots = file.slots.size();
  std::size_t got = 0;
  const unsigned char* from = peekbytes(file.bytes, (numslots + numslots / codesinblock + 1) * slotsize, got);
  return {from, from, from + got};
}

// Takes the next 8 bytes. Only a file with much filler among its codes moves the window. False at the end of the file.
bool takeeight(SpssFile& file, Window& window, unsigned char* to) {
  if (window.end - window.next < static_cast<long long>(slotsize)) {
    file.bytes.at += static_cast<std::size_t>(window.next - window.from);
    window = startwindow(file);
    if (window.end - window.next < static_cast<long long>(slotsize)) return false;
  }
  std::memcpy(to, window.next, slotsize);
  window.next += slotsize;
  return true;
}

int readcompressed(SpssFile& file) {
  const std::size_t numslots = file.slots.size();
  Window window = startwindow(file);
  for (std::size_t slot = 0; slot < numslots;) {
    if (file.ctlpos == codesinblock) {
      if (!takeeight(file, window, file.codes))
        return enddata(file, slot > 0 || window.next != window.end ? Ending::incase : Ending::file);
      file.ctlpos = 0;
    }
    const unsigned char code = file.codes[file.ctlpos++];
    if (code == codefiller) continue;
    Slot& value = file.slots[slot];
    if (code == codevalue) {
      if (!takeeight(file, window, value.data())) return enddata(file, Ending::incase);
    } else if (code == codeend) {
      return enddata(file, slot > 0 ? Ending::incase : Ending::code);
    } else if (code == codeblank || file.rows[slot].text) {
      value = file.blank[slot];
    } else {
      value = std::bit_cast<Slot>(code == codemissing ? missingcode : code - file.bias);
    }
    ++slot;
  }
  file.bytes.at += static_cast<std::size_t>(window.next - window.from);
  return 0;
}

// The system-missing value of a file, and all that is no number.
bool nonumber(double value) { return !std::isfinite(value) || value <= missingcode; }

bool ismissing(double value, const MissingList& missing) {
  if (nonumber(value)) return true;
  if (missing.count < 0) {
    if (value >= missing.value[0] && value <= missing.value[1]) return true;
    return missing.count == -3 && value == missing.value[2];
  }
  for (int i = 0; i < missing.count; ++i)
    if (value == missing.value[i]) return true;
  return false;
}

void takeid(const SpssFile& file, int row, Id& id) {
  const auto slot = static_cast<std::size_t>(row);
  if (run.mdm.numericids) {
    const auto value = std::bit_cast<double>(file.slots[slot]);
    id.number = nonumber(value) ? missingcode : numericid(value);
  } else {
    const char* text = reinterpret_cast<const char*>(file.slots[slot].data());
    id.text = textid(std::string_view(text, static_cast<std::size_t>(file.textwidth[slot])));
  }
}

}  // namespace

void openspss(int level) {
  LevelSource& source = raw.level[level];
  files[level] = SpssFile{};
  source.stream = startbytes(files[level].bytes, source.filename);
  readhead(level);
  readdictionary(level);
  source.numvar = files[level].numslots;
}

void preparespss(int level) {
  SpssFile& file = files[level];
  settlevariables(level);
  seekbytes(file.bytes, file.data);
  file.rows = raw.level[level].vartable.data();
  file.ctlpos = codesinblock;
  file.nread = 0;
  file.ended = false;
}

int spssrecord(int level, double* values, Id* id3, Id* id2) {
  SpssFile& file = files[level];
  if (file.ended || (file.compressed != 0 ? readcompressed(file) : readplain(file)) != 0) return 1;
  const LevelSource& source = raw.level[level];
  if (source.row3 >= 0) takeid(file, source.row3, *id3);
  if (source.row2 >= 0 && id2 != nullptr) takeid(file, source.row2, *id2);
  for (const int row : source.chosen) {
    const auto slot = static_cast<std::size_t>(row);
    const auto value = std::bit_cast<double>(file.slots[slot]);
    *values++ = ismissing(value, file.missing[slot]) ? missingcode : value;
  }
  ++file.nread;
  return 0;
}

void closespss(int level) {
  closestream(level);
  files[level] = SpssFile{};
}

}  // namespace kdr
