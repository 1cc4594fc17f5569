// dBASE tables through the table part of shapelib. Records that are marked as deleted are passed over.
#include <shapefil.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "construct/readers/plainnumber.h"
#include "construct/readers/stlayer.h"
#include "core/formatted.h"
#include "driver/files.h"

namespace kdr {

namespace {

struct DbaseState {
  DBFHandle table = nullptr;
  int records = 0;    // whole ones that the file holds
  int announced = 0;  // records that the head tells
  int next = 0;
  Array<char> piece;      // the buffer of the table's stream
  long long strange = 0;  // fields of numeric columns that hold something else
  std::string firststrange;
};

DbaseState& stateof(StFile& file) { return *static_cast<DbaseState*>(file.state); }

unsigned number(const unsigned char* bytes, int count) {
  unsigned value = 0;
  while (count > 0) value = value << 8U | bytes[--count];
  return value;
}

// The library takes the head's lengths on trust, so they are held against each other and against the file's length
// here. Fills the counts of records.
bool checkhead(StFile& file) {
  constexpr unsigned fixedpart = 32;
  DbaseState& state = stateof(file);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.path.c_str(), "rb"), std::fclose);
  unsigned char head[fixedpart];
  file.trouble = stream == nullptr ? ST_CannotOpen : "it is no dBASE table";
  if (stream == nullptr || readupto(head, fixedpart, stream.get(), file.path) != fixedpart) return false;
  const unsigned headlength = number(head + 8, 2);
  const unsigned recordlength = number(head + 10, 2);
  if (headlength <= fixedpart || recordlength < 2) return false;
  unsigned fields = 1;  // the mark of deletion
  unsigned char field[fixedpart];
  for (unsigned at = fixedpart; at + fixedpart <= headlength; at += fixedpart) {
    if (readupto(field, fixedpart, stream.get(), file.path) != fixedpart) return false;
    if (field[0] == '\r') break;
    fields += field[16];
    if (fields > recordlength) return false;
  }
  if (std::fseek(stream.get(), 0, SEEK_END) != 0) return false;
  const long long length = std::ftell(stream.get());
  if (length < headlength) return false;
  const auto announced = static_cast<long long>(number(head + 4, 4));
  const long long whole = (length - headlength) / recordlength;
  if (announced > 0x7FFFFFFF) return false;
  state.announced = static_cast<int>(announced);
  state.records = static_cast<int>(whole < announced ? whole : announced);
  file.trouble.clear();
  return true;
}

constexpr std::size_t piecesize = std::size_t{1} << 20;

// The file that the library works on: it would look for one whose name ends in .dbf.
StFile* inhand = nullptr;

SAOffset readit(void* bytes, SAOffset size, SAOffset count, SAFile file) {
  return readupto(bytes, size * count, reinterpret_cast<std::FILE*>(file), inhand->path) / std::max<SAOffset>(size, 1);
}

SAFile openit(const char* name, const char* mode) {
  const std::size_t length = std::strlen(name);
  if (length > 4 && (std::strcmp(name + length - 4, ".cpg") == 0 || std::strcmp(name + length - 4, ".CPG") == 0))
    return nullptr;
  std::FILE* stream = std::fopen(inhand->path.c_str(), mode);
  if (stream == nullptr) return nullptr;
  Array<char>& piece = stateof(*inhand).piece;
  piece.reset(piecesize);
  std::setvbuf(stream, piece.data(), _IOFBF, piecesize);
  std::rewind(stream);  // from now on it keeps account of where it stands
  return reinterpret_cast<SAFile>(stream);
}

// The library seeks before each record; where the stream stands there already, its buffer is kept.
SAOffset seekit(SAFile file, SAOffset offset, int whence) {
  std::FILE* stream = reinterpret_cast<std::FILE*>(file);
  const auto target = static_cast<off_t>(offset);
  if (whence == SEEK_SET && ftello(stream) == target) return 0;
  return static_cast<SAOffset>(fseeko(stream, target, whence));
}

// The number that a field states. A blank field is missing, and one that the writer filled with asterisks because its
// number was too wide. Anything else that is no number counts as missing too, but not in silence.
double numberat(StFile& file, std::string_view field, std::size_t v) {
  DbaseState& state = stateof(file);
  constexpr std::string_view blanks(" \0", 2);
  double value = 0.0;
  if (plainfield(field.data(), field.size(), value)) return value;
  const std::size_t first = std::min(field.find_first_not_of(blanks), field.size());
  field = field.substr(first, field.find_last_not_of(blanks) + 1 - first);
  if (fieldnumber(field, value)) return value;
  if (!missingfield(field) && field[0] != '*' && state.strange++ == 0)
    state.firststrange = formatted("%s of record %d", file.variables[v].name.c_str(), state.next);
  return missingcode;
}

}  // namespace

bool dbasedictionary(StFile& file) {
  auto* state = new DbaseState;
  file.state = state;
  if (!checkhead(file)) return false;
  SAHooks hooks;
  SASetupDefaultHooks(&hooks);
  hooks.FOpen = openit;
  hooks.FRead = readit;
  hooks.FSeek = seekit;
  hooks.Error = [](const char*) {};
  inhand = &file;
  state->table = DBFOpenLL(file.path.c_str(), "rb", &hooks);
  const int count = state->table == nullptr ? 0 : DBFGetFieldCount(state->table);
  if (count <= 0) {
    file.trouble = "it is no dBASE table";
    return false;
  }
  makevariables(file, static_cast<std::size_t>(count));
  for (int f = 0; f < count; ++f) {
    StVariable& variable = file.variables[static_cast<std::size_t>(f)];
    char name[XBASE_FLDNAME_LEN_READ + 1] = "";
    const DBFFieldType type = DBFGetFieldInfo(state->table, f, name, &variable.width, nullptr);
    nameit(variable, name);
    variable.numeric = type == FTInteger || type == FTDouble;
  }
  return true;
}

bool dbaserecord(StFile& file) {
  DbaseState& state = stateof(file);
  inhand = &file;
  while (state.next < state.records && DBFIsRecordDeleted(state.table, state.next) != 0) ++state.next;
  if (state.next >= state.records) {
    if (state.records < state.announced)
      file.trouble = formatted("its head tells %d records, but %d are there", state.announced, state.records);
    if (state.strange > 0)
      file.remark = formatted("%lld fields of numeric columns hold no number and count as missing, the first is %s",
                              state.strange, state.firststrange.c_str());
    return false;
  }
  const int record = state.next++;
  const char* bytes = DBFReadTuple(state.table, record);
  for (std::size_t v = 0; v < file.variables.size(); ++v) {
    if (!file.variables[v].selected) continue;
    const int f = static_cast<int>(v);
    if (bytes == nullptr) {
      file.numbers[v] = missingcode;
      file.texts[v].clear();
      continue;
    }
    const std::string_view field(bytes + state.table->panFieldOffset[f],
                                 static_cast<std::size_t>(state.table->panFieldSize[f]));
    if (file.variables[v].numeric) {
      file.numbers[v] = numberat(file, field, v);
    } else {
      file.texts[v] = sttext(field.substr(std::min(field.find_first_not_of(' '), field.size())));
    }
  }
  return true;
}

void dbaseclose(StFile& file) {
  DbaseState* state = &stateof(file);
  if (state->table != nullptr) DBFClose(state->table);
  delete state;
  file.state = nullptr;
}

}  // namespace kdr
