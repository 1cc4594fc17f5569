// SAS, SPSS and Stata files through ReadStat.
//
// The library calls back with one value after the other, so the selected variables of the whole file go to a scratch
// file first, row by row: a double or a text slot each. Memory holds one row, whatever the file's length.
#include <readstat.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "construct/rawvariables.h"
#include "construct/readers/stlayer.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"

namespace kdr {

namespace {

constexpr std::size_t piecesize = std::size_t{1} << 20;
constexpr int cardlength = 80;  // of a transport file

// The file as the library sees it: through a large buffer, as it reads some formats record by record. The table of
// characters in a portable file gives some characters a second place, for a superscript or a dash of another kind. The
// library takes the last place, and would read no digits or lose a minus sign; so it is shown the first one only.
//
// A transport file can hold further data sets, whose heads the library would take for records: to it the file ends in
// front of them.
struct LibraryFile {
  std::FILE* stream = nullptr;
  std::string name;
  Array<char> piece;  // its buffer
  bool portable = false;
  Array<long long> repeated;  // file positions of further places
  long long end = -1;         // where the file ends for the library; -1 for its own end
};

// What the file is read for.
enum class Reading { dictionary, values, zeros };

struct ReadstatState {
  LibraryFile library;
  long long filelength = 0;
  long long announced = -1;  // records that the head tells, -1 where it does not
  Reading reading = Reading::dictionary;
  bool overfull = false;      // the head tells more variables than the file could hold
  Array<char> row;            // the row in hand, and its bytes while it is read back
  Array<std::size_t> place;   // of a selected variable in the row: a number, or the length of a text and its bytes
  Array<std::size_t> room;    // bytes that a text may have there
  Array<std::size_t> stored;  // bytes of each variable in the file
  Array<long long> zero;      // of a text: the first record in which a zero byte stands within it, or -1
  long long recordwidth = 0;  // bytes of a record, of all variables
  long long datastart = 0;    // where the records begin, in a transport file
  std::size_t listwidth = 0;  // bytes that the name of a list of labels may have, 0 where there is none
  std::size_t wanted = 0;     // selected variables
  std::size_t filled = 0;     // values of the row in hand
  int observation = -1;       // its number
  long long rows = 0;         // on the scratch file
  long long read = 0;         // of them
  bool writefailed = false;
  Array<char> scratchpiece;  // the buffer of
  ScratchFile scratch;
  std::string words;  // the library's last
};

ReadstatState& stateof(StFile& file) { return *static_cast<ReadstatState*>(file.state); }

// Finds the table of characters: 256 bytes behind five titles of 40, line ends not counted.
void findrepeated(LibraryFile& library) {
  constexpr int tablestart = 200;
  constexpr int tableend = tablestart + 256;
  bool seen[256] = {};
  std::size_t found = 0;
  int c = 0;
  library.repeated.reset(tableend);
  for (int at = 0; at < tableend && (c = std::getc(library.stream)) != EOF;) {
    if (c == '\r' || c == '\n') continue;
    if (at >= tablestart && c != '0') {
      if (seen[c]) library.repeated[found++] = std::ftell(library.stream) - 1;
      seen[c] = true;
    }
    ++at;
  }
  checkread(library.stream, library.name);
  library.repeated.resize(found);
  std::rewind(library.stream);
}

LibraryFile& libraryof(void* context) { return *static_cast<LibraryFile*>(context); }

int openlibrary(const char* path, void* context) {
  LibraryFile& library = libraryof(context);
  library.name = path;
  library.stream = std::fopen(path, "rb");
  if (library.stream == nullptr) return -1;
  if (library.piece.empty()) library.piece.reset(piecesize);
  std::setvbuf(library.stream, library.piece.data(), _IOFBF, piecesize);
  if (library.portable) findrepeated(library);
  return 0;
}

int closelibrary(void* context) {
  LibraryFile& library = libraryof(context);
  if (library.stream != nullptr) std::fclose(library.stream);
  library.stream = nullptr;
  return 0;
}

readstat_off_t seeklibrary(readstat_off_t offset, readstat_io_flags_t whence, void* context) {
  const int from = whence == READSTAT_SEEK_SET ? SEEK_SET : whence == READSTAT_SEEK_CUR ? SEEK_CUR : SEEK_END;
  LibraryFile& library = libraryof(context);
  if (whence == READSTAT_SEEK_END && library.end >= 0)
    return fseeko(library.stream, library.end + offset, SEEK_SET) == 0 ? ftello(library.stream) : -1;
  return fseeko(library.stream, offset, from) == 0 ? ftello(library.stream) : -1;
}

ssize_t readlibrary(void* bytes, std::size_t count, void* context) {
  LibraryFile& library = libraryof(context);
  const bool plain = library.repeated.empty() && library.end < 0;
  const long long start = plain ? 0 : ftello(library.stream);
  if (library.end >= 0) count = std::min(count, static_cast<std::size_t>(std::max(library.end - start, 0LL)));
  const auto got = static_cast<long long>(readupto(bytes, count, library.stream, library.name));
  for (const long long position : library.repeated)
    if (position >= start && position < start + got) static_cast<char*>(bytes)[position - start] = '0';
  return got;
}

readstat_error_t updatelibrary(long, readstat_progress_handler, void*, void*) { return READSTAT_OK; }

int takehead(readstat_metadata_t* metadata, void* context) {
  StFile& file = *static_cast<StFile*>(context);
  ReadstatState& state = stateof(file);
  state.announced = readstat_get_row_count(metadata);
  if (state.reading != Reading::dictionary) return READSTAT_HANDLER_OK;
  const int count = readstat_get_var_count(metadata);
  state.overfull = count < 0 || count > state.filelength;
  if (state.overfull) return READSTAT_HANDLER_ABORT;
  makevariables(file, static_cast<std::size_t>(count));
  state.stored.reset(static_cast<std::size_t>(count));
  return READSTAT_HANDLER_OK;
}

// The characters of a text. The library counts the bytes that it takes in the file, or in memory; in SPSS the print
// format tells.
int textwidthof(const StFile& file, const readstat_variable_t* variable, int width) {
  const char* format = readstat_variable_get_format(variable);
  const bool spss = file.backend->format == StFormat::spss || file.backend->format == StFormat::spssportable;
  if (file.backend->format == StFormat::stata && width > 0) return width - 1;
  const int stated = spss && format != nullptr && *format == 'A' ? std::atoi(format + 1) : 0;
  return stated > 0 ? std::min(stated, width) : width;
}

// The name of a list of labels, which the library shows where it stands in the file's head: with no zero behind it when
// it is as long as it may be. In SAS it is the name of a format.
std::string listname(const ReadstatState& state, const char* name) {
  return name == nullptr ? std::string() : std::string(name, strnlen(name, state.listwidth));
}

int takevariable(int index, readstat_variable_t* variable, const char* labels, void* context) {
  StFile& file = *static_cast<StFile*>(context);
  const auto i = static_cast<std::size_t>(index);
  if (index < 0 || i >= file.variables.size()) return READSTAT_HANDLER_ABORT;
  StVariable& ours = file.variables[i];
  if (stateof(file).reading == Reading::values)
    return ours.selected ? READSTAT_HANDLER_OK : READSTAT_HANDLER_SKIP_VARIABLE;
  if (stateof(file).reading == Reading::zeros)
    return ours.selected && !ours.numeric ? READSTAT_HANDLER_OK : READSTAT_HANDLER_SKIP_VARIABLE;
  const char* name = readstat_variable_get_name(variable);
  nameit(ours, name == nullptr ? "" : name);
  ours.numeric = readstat_variable_get_type_class(variable) == READSTAT_TYPE_CLASS_NUMERIC;
  const std::size_t width = readstat_variable_get_storage_width(variable);
  ours.width = width < INT_MAX ? textwidthof(file, variable, static_cast<int>(width)) : INT_MAX;
  ours.labels = listname(stateof(file), labels);
  const char* title = readstat_variable_get_label(variable);
  ours.title = title == nullptr ? "" : title;
  stateof(file).stored[i] = readstat_variable_get_type(variable) == READSTAT_TYPE_STRING_REF ? ST_LongestText : width;
  stateof(file).recordwidth += static_cast<long long>(width);
  return READSTAT_HANDLER_OK;
}

// One label of a list.
int takelabel(const char* list, readstat_value_t value, const char* label, void* context) {
  StFile& file = *static_cast<StFile*>(context);
  if (stateof(file).reading == Reading::zeros) return READSTAT_HANDLER_OK;
  const std::string name = listname(stateof(file), list);
  if (name.empty() || label == nullptr || readstat_value_type_class(value) != READSTAT_TYPE_CLASS_NUMERIC)
    return READSTAT_HANDLER_OK;
  if (file.labels.empty() || file.labels.back().name != name) file.labels.push_back({name, "", {}});
  file.labels.back().values.emplace_back(readstat_double_value(value), label);
  addlabel(file.labels.back().text, readstat_double_value(value), label);
  return READSTAT_HANDLER_OK;
}

// The row in hand is complete: the first value of the next one has come, or the file has ended well.
void spoolrow(ReadstatState& state) {
  if (state.observation < 0 || state.filled < state.wanted) return;
  if (state.rows % 1024 == 0) checksignals();
  if (!state.row.empty() && std::fwrite(state.row.data(), 1, state.row.size(), state.scratch.get()) != state.row.size())
    state.writefailed = true;
  ++state.rows;
  state.filled = 0;
}

// What readstat_value_is_missing tells, without a search in lists that are empty. That a value is no number at all
// shows later.
bool ismissing(readstat_value_t value, readstat_variable_t* variable) {
  if (value.is_system_missing != 0 || value.is_tagged_missing != 0) return true;
  return readstat_variable_get_missing_ranges_count(variable) > 0 &&
         readstat_value_is_defined_missing(value, variable) != 0;
}

// The library gives texts that end with a zero byte, and so hides one within a text, and what stands behind it. But it
// can be told that the characters of a file are those of this code, which has one for each byte: U+2800 and the byte.
// Read so, in UTF-8, nothing is hidden.
constexpr const char* bytecode = "ISO_11548-1";
constexpr std::string_view zerobyte = "\xE2\xA0\x80", blankbyte = "\xE2\xA0\xA0";

// Whether a zero byte stands in the text, with something else than zeros and blanks behind it.
bool zerowithin(const char* bytes) {
  std::string_view text(bytes == nullptr ? "" : bytes);
  while (text.ends_with(zerobyte) || text.ends_with(blankbyte)) text.remove_suffix(zerobyte.size());
  return text.find(zerobyte) != text.npos;
}

int takevalue(int observation, readstat_variable_t* variable, readstat_value_t value, void* context) {
  StFile& file = *static_cast<StFile*>(context);
  ReadstatState& state = stateof(file);
  if (state.reading == Reading::dictionary) return READSTAT_HANDLER_ABORT;
  const auto i = static_cast<std::size_t>(readstat_variable_get_index(variable));
  if (i >= file.variables.size() || !file.variables[i].selected) return READSTAT_HANDLER_ABORT;
  if (state.reading == Reading::zeros) {
    if (state.zero[i] < 0 && zerowithin(readstat_string_value(value))) state.zero[i] = observation;
    return READSTAT_HANDLER_OK;
  }
  if (observation != state.observation) {
    spoolrow(state);
    if (state.filled != 0 || state.writefailed) return READSTAT_HANDLER_ABORT;
    state.observation = observation;
  }
  char* place = state.row.data() + state.place[i];
  if (file.variables[i].numeric) {
    const double number = ismissing(value, variable) ? missingcode : stnumber(readstat_double_value(value));
    std::memcpy(place, &number, sizeof number);
  } else {
    const char* text = readstat_string_value(value);
    const std::string_view kept = sttext(text == nullptr ? "" : text);
    if (kept.size() > state.room[i]) return READSTAT_HANDLER_ABORT;
    const auto length = static_cast<std::uint16_t>(kept.size());
    std::memcpy(place, &length, sizeof length);
    kept.copy(place + sizeof length, kept.size());
  }
  ++state.filled;
  return READSTAT_HANDLER_OK;
}

void takewords(const char* words, void* context) {
  std::string text = words;
  text.erase(text.find_last_not_of(" \n") + 1);
  stateof(*static_cast<StFile*>(context)).words = text;
}

readstat_error_t parse(StFile& file) {
  readstat_parser_t* parser = readstat_parser_init();
  if (parser == nullptr) fail(3);
  readstat_set_metadata_handler(parser, takehead);
  readstat_set_variable_handler(parser, takevariable);
  readstat_set_value_handler(parser, takevalue);
  readstat_set_value_label_handler(parser, takelabel);
  readstat_set_error_handler(parser, takewords);
  readstat_set_open_handler(parser, openlibrary);
  readstat_set_close_handler(parser, closelibrary);
  readstat_set_seek_handler(parser, seeklibrary);
  readstat_set_read_handler(parser, readlibrary);
  readstat_set_update_handler(parser, updatelibrary);
  readstat_set_io_ctx(parser, &stateof(file).library);
  if (stateof(file).reading == Reading::zeros) {
    readstat_set_file_character_encoding(parser, bytecode);
    readstat_set_handler_character_encoding(parser, "UTF-8");
  }
  stateof(file).library.portable = file.backend->format == StFormat::spssportable;
  const char* path = file.path.c_str();
  readstat_error_t error = READSTAT_ERROR_OPEN;
  switch (file.backend->format) {
    case StFormat::sas:
      error = readstat_parse_sas7bdat(parser, path, &file);
      break;
    case StFormat::sastransport:
      error = readstat_parse_xport(parser, path, &file);
      break;
    case StFormat::spss:
      error = readstat_parse_sav(parser, path, &file);
      break;
    case StFormat::spssportable:
      error = readstat_parse_por(parser, path, &file);
      break;
    default:
      error = readstat_parse_dta(parser, path, &file);
  }
  readstat_parser_free(parser);
  closelibrary(&stateof(file).library);
  return error;
}

std::string wordsof(const ReadstatState& state, readstat_error_t error) {
  return state.words.empty() ? readstat_error_message(error) : state.words;
}

// Only SPSS and Stata files have lists of labels.
std::size_t listwidthof(const StFile& file) {
  constexpr std::size_t spss = 255, oldest = 8, older = 32, newest = 128;
  if (file.backend->format == StFormat::spss || file.backend->format == StFormat::spssportable) return spss;
  if (file.backend->format != StFormat::stata) return 0;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.path.c_str(), "rb"), std::fclose);
  constexpr std::string_view mark = "<stata_dta><header><release>";
  char head[mark.size() + 3] = "";
  const std::size_t got = stream == nullptr ? 0 : readupto(head, sizeof head, stream.get(), file.path);
  const std::string_view text(head, got);
  if (text.starts_with(mark)) return text.substr(mark.size()) == "117" ? older : newest;
  return got > 0 && static_cast<unsigned char>(head[0]) < 110 ? oldest : older;
}

// Where the records of a transport file begin, and where its first data set ends. False when it cannot be opened.
bool findmember(ReadstatState& state, const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(path.c_str(), "rb"), std::fclose);
  if (stream == nullptr) return false;
  char card[cardlength];
  const auto begins = [&](std::string_view words) { return std::string_view(card, cardlength).starts_with(words); };
  for (long long at = 0; readupto(card, cardlength, stream.get(), path) == cardlength; at += cardlength) {
    if (card[0] != 'H') continue;
    if (state.datastart == 0 && (begins("HEADER RECORD*******OBS ") || begins("HEADER RECORD*******OBSV8 "))) {
      state.datastart = at + cardlength;
    } else if (state.datastart > 0 &&
               (begins("HEADER RECORD*******MEMBER ") || begins("HEADER RECORD*******MEMBV8 "))) {
      state.library.end = at;
      break;
    }
  }
  return true;
}

// A transport file tells no number of records. Its last one is whole when nothing but blanks follow it, as many as fill
// the last card of 80 bytes.
void checkmember(StFile& file) {
  ReadstatState& state = stateof(file);
  const long long end = state.library.end >= 0 ? state.library.end : state.filelength;
  if (state.library.end >= 0) file.remark = "it holds more than one data set, and the first one was read";
  if (state.datastart == 0 || state.recordwidth == 0 || end < state.datastart) return;
  const long long over = (end - state.datastart) % state.recordwidth;
  bool blank = over < cardlength;
  if (blank) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(openfile(file.path, "rb"), std::fclose);
    char rest[cardlength];
    const auto count = static_cast<std::size_t>(over);
    blank = fseeko(stream.get(), end - over, SEEK_SET) == 0 &&
            readupto(rest, count, stream.get(), file.path) == count &&
            std::string_view(rest, count).find_first_not_of(' ') == std::string_view::npos;
  }
  if (!blank) {
    file.trouble = formatted("it ends in the middle of record %lld, which does not count", state.rows + 1);
  } else if (end % cardlength != 0) {
    file.trouble = formatted("it ends behind record %lld without filling a card of 80 bytes", state.rows);
  }
}

// Whether a zero byte may stand in a text. In a Stata file it ends the text; a portable file with one is refused.
bool mayhavezeros(const StFile& file) {
  const StFormat format = file.backend->format;
  return format == StFormat::sas || format == StFormat::sastransport || format == StFormat::spss;
}

// Where a zero byte stands in a file with something else behind it, counted from 1; 0 for nowhere.
long long zeroplace(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(path.c_str(), "rb"), std::fclose);
  if (stream == nullptr) return 0;
  Array<char> piece(piecesize);
  long long zero = 0, before = 0;
  for (std::size_t got = 0; (got = readupto(piece.data(), piecesize, stream.get(), path)) > 0;
       before += static_cast<long long>(got))
    for (std::size_t i = 0; i < got; ++i) {
      if (piece[i] != '\0' && zero > 0) return zero;
      if (piece[i] == '\0' && zero == 0) zero = before + static_cast<long long>(i) + 1;
    }
  return 0;
}

// Looks for zero bytes within the texts that are wanted. They go unseen where the system does not know the code.
void findzeros(StFile& file) {
  ReadstatState& state = stateof(file);
  const auto text = [](const StVariable& variable) { return variable.selected && !variable.numeric; };
  state.zero.reset(file.variables.size());
  state.zero.fill(-1);
  if (!mayhavezeros(file) || std::none_of(file.variables.begin(), file.variables.end(), text)) return;
  const std::string words = state.words;
  state.reading = Reading::zeros;
  static_cast<void>(parse(file));
  state.words = words;
}

// Lays out a row and brings the whole file to the scratch file.
void spool(StFile& file) {
  ReadstatState& state = stateof(file);
  state.reading = Reading::values;
  file.labels.clear();
  state.words.clear();
  state.place.reset(file.variables.size());
  state.room.reset(file.variables.size());
  std::size_t width = 0;
  for (std::size_t v = 0; v < file.variables.size(); ++v) {
    const StVariable& variable = file.variables[v];
    if (!variable.selected) continue;
    state.place[v] = width;
    // In UTF-8 a character that had one byte has three at most.
    if (!variable.numeric) state.room[v] = std::min(std::size_t{3} * state.stored[v], ST_LongestText + 1);
    width += variable.numeric ? sizeof(double) : sizeof(std::uint16_t) + state.room[v];
    ++state.wanted;
  }
  state.row.reset(width);
  state.scratch = neededscratch();
  state.scratchpiece.reset(piecesize);
  std::setvbuf(state.scratch.get(), state.scratchpiece.data(), _IOFBF, piecesize);
  const readstat_error_t error = parse(file);
  if (error == READSTAT_ERROR_OPEN) stopwith("Unable to open %s for reading\n", file.path.c_str());
  spoolrow(state);
  if (state.writefailed || std::fflush(state.scratch.get()) != 0) fail(5);
  std::rewind(state.scratch.get());
  if (error != READSTAT_OK) {
    const std::string of = state.announced > state.rows ? formatted(" of %lld", state.announced) : "";
    file.trouble =
        formatted("it breaks off behind record %lld%s (%s)", state.rows, of.c_str(), wordsof(state, error).c_str());
  } else if (state.rows < state.announced) {
    file.trouble = formatted("its head tells %lld records, but %lld are there", state.announced, state.rows);
  } else if (file.backend->format == StFormat::sastransport) {
    checkmember(file);
  }
  findzeros(file);
}

}  // namespace

bool readstatdictionary(StFile& file) {
  auto* state = new ReadstatState;
  file.state = state;
  struct stat status {};
  if (stat(file.path.c_str(), &status) == 0) state->filelength = status.st_size;
  state->listwidth = listwidthof(file);
  const bool found = file.backend->format != StFormat::sastransport || findmember(*state, file.path);
  const readstat_error_t error = found ? parse(file) : READSTAT_ERROR_OPEN;
  const long long zero = file.backend->format == StFormat::spssportable ? zeroplace(file.path) : 0;
  if (error == READSTAT_ERROR_OPEN) {
    file.trouble = ST_CannotOpen;
  } else if (zero > 0) {
    file.trouble = formatted("byte %lld is zero, and such a file is text", zero);
  } else if (state->overfull) {
    file.trouble = "its head tells more variables than it can hold";
  } else if (error != READSTAT_OK && !(error == READSTAT_ERROR_USER_ABORT && !file.variables.empty())) {
    file.trouble = wordsof(*state, error);
  } else if (file.variables.empty()) {
    file.trouble = "it holds no variables";
  } else if (file.backend->format == StFormat::stata && state->announced < 0) {
    file.trouble = "its head tells fewer than no records";
  }
  return file.trouble.empty();
}

bool readstatrecord(StFile& file) {
  ReadstatState& state = stateof(file);
  if (state.scratch == nullptr) spool(file);
  if (state.read == state.rows) return false;
  if (readupto(state.row.data(), state.row.size(), state.scratch.get(), "a temporary file") != state.row.size())
    stopwith("A temporary file is damaged: it is cut off.\n");
  ++state.read;
  for (std::size_t v = 0; v < file.variables.size(); ++v) {
    if (!file.variables[v].selected) continue;
    const char* place = state.row.data() + state.place[v];
    if (file.variables[v].numeric) {
      std::memcpy(&file.numbers[v], place, sizeof(double));
    } else {
      std::uint16_t length = 0;
      std::memcpy(&length, place, sizeof length);
      file.texts[v].assign(place + sizeof length, length);
      if (state.read == state.zero[v] + 1) file.texts[v].append("\0?", 2);  // what was hidden behind it is not known
    }
  }
  return true;
}

void readstatclose(StFile& file) {
  delete &stateof(file);
  file.state = nullptr;
}

}  // namespace kdr
