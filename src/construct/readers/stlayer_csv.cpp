// Delimited text through libcsv: a header line with the names, then one line for each record.
//
// The dictionary takes one pass over the file, which settles the kind of each column: numeric when every field that is
// not missing is a number. The records then come line by line.
//
// Where the comma is no delimiter it can be the decimal sign. One sign holds for the whole file: in a file with decimal
// commas a point may part thousands, so its columns with points are no numbers.
#include <csv.h>
#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "construct/readers/plainnumber.h"
#include "construct/readers/stlayer.h"
#include "core/formatted.h"
#include "driver/files.h"
#include "driver/failures.h"

namespace kdr {

namespace {

constexpr std::size_t piecesize = std::size_t{1} << 16;
constexpr std::size_t longestfield = std::size_t{1} << 20;

constexpr unsigned haspoint = 1, hascomma = 2;

enum class Purpose { count, names, kinds, values };

struct CsvState {
  StFile* file = nullptr;
  std::FILE* stream = nullptr;
  csv_parser parser{};
  char delimiter = ',';
  Purpose purpose = Purpose::count;
  Array<char> buffer;
  Array<unsigned> signs;  // decimal signs in each column's numbers: haspoint, hascomma
  std::size_t at = 0, have = 0;
  long long feeds = 0;      // line feeds so far
  long long line = 1;       // of what the library is given
  long long fieldline = 1;  // on which the field in hand begins
  bool ended = false;       // the parser was told that the file has ended
  bool openline = false;    // the row in hand has no line end
  bool openquote = false;   // nor does its last field have its closing quote
  bool overlong = false;    // a field is longer than any that makes sense
  std::size_t columns = 0;  // fields of the row in hand
  bool complete = false;    // its end was seen
  long long goodrows = 0;   // records that count
  long long given = 0;      // of them
  bool lastopen = false;    // the last of them has no line end
  std::size_t skipped = 0;  // bytes before the header line: a byte order mark, a line that tells the delimiter
  bool told = false;        // there is such a line
  std::string cut;          // how the data end before their time
};

CsvState& stateof(StFile& file) { return *static_cast<CsvState*>(file.state); }

// Fields that hold no number but say so.
bool missingnumber(std::string_view field) {
  return missingfield(field) || field == "NaN" || field == "." || field == "#N/A";
}

bool truthvalue(std::string_view field, double& value) {
  for (const char* word : {"TRUE", "True", "true"})
    if (field == word) value = 1.0;
  for (const char* word : {"FALSE", "False", "false"})
    if (field == word) value = 0.0;
  return value != missingcode;
}

// The number that a field states, with the decimal signs that it has.
bool numberin(const CsvState& state, std::string_view field, double& value, unsigned& sign) {
  const std::size_t comma = state.delimiter == ',' ? field.npos : field.find(',');
  sign = field.find('.') == field.npos ? 0 : haspoint;
  if (comma == field.npos) return fieldnumber(field, value) || truthvalue(field, value = missingcode);
  sign |= hascomma;
  std::string pointed(field.substr(0, longestnumber));
  if (comma < pointed.size()) pointed[comma] = '.';
  return field.size() <= longestnumber && fieldnumber(pointed, value);
}

// Takes the next field of the row. `known` is its number where that is known already.
void storefield(CsvState& state, std::string_view field, const double* known = nullptr) {
  const std::size_t column = state.columns++;
  if (state.purpose == Purpose::count || column >= state.file->variables.size()) return;
  StVariable& variable = state.file->variables[column];
  double value = missingcode;
  unsigned sign = 0;
  if (state.purpose == Purpose::names) {
    nameit(variable, field);
  } else if (state.purpose == Purpose::kinds) {
    variable.width = std::max(variable.width, static_cast<int>(std::min<std::size_t>(field.size(), INT_MAX)));
    if (!variable.numeric || missingnumber(field)) return;
    if (known != nullptr) {
      sign = field.find('.') == field.npos ? 0 : haspoint;
    } else {
      variable.numeric = numberin(state, field, value, sign);
      constexpr std::size_t mostshown = 40;
      if (!variable.numeric)
        variable.why =
            formatted("line %lld holds \"%s\"", state.fieldline, printable(field.substr(0, mostshown)).c_str());
    }
    state.signs[column] |= sign;
  } else if (variable.selected && variable.numeric) {
    const bool found = known != nullptr || (!missingnumber(field) && numberin(state, field, value, sign));
    state.file->numbers[column] = !found ? missingcode : known != nullptr ? *known : value;
  } else if (variable.selected) {
    state.file->texts[column] = sttext(field);  // an ID, which NA can be as well
  }
}

void takefield(void* bytes, std::size_t length, void* context) {
  CsvState& state = *static_cast<CsvState*>(context);
  state.fieldline = state.line;
  storefield(state, {static_cast<const char*>(bytes), bytes == nullptr ? 0 : length});
}

void takeend(int, void* context) { static_cast<CsvState*>(context)->complete = true; }

bool fillbuffer(CsvState& state) {
  checksignals();
  state.at = 0;
  state.have = readupto(state.buffer.data(), state.buffer.size(), state.stream, state.file->path);
  return state.have > 0;
}

void startparser(CsvState& state) {
  csv_free(&state.parser);
  if (csv_init(&state.parser, 0) != 0) fail(3);
  csv_set_delim(&state.parser, static_cast<unsigned char>(state.delimiter));
  csv_set_blk_size(&state.parser, 4096);
  state.feeds = state.told ? 1 : 0;
  state.ended = state.openline = state.openquote = false;
}

// Back to the header line.
void startover(CsvState& state, Purpose purpose) {
  startparser(state);
  state.purpose = purpose;
  std::rewind(state.stream);
  if (fillbuffer(state)) state.at = state.skipped;
}

// Passes over a byte order mark and a line such as "sep=;", which tells the delimiter.
void skipforeword(CsvState& state) {
  std::string_view text(state.buffer.data(), state.have);
  if (text.starts_with("\xEF\xBB\xBF")) state.skipped = 3;
  text.remove_prefix(state.skipped);
  const std::size_t feed = text.find('\n');
  const std::string_view line = text.substr(0, feed);
  constexpr std::string_view word = "sep=";
  const bool told = line.size() == word.size() + 1 || (line.size() == word.size() + 2 && line.ends_with('\r'));
  if (feed == text.npos || !told || strncasecmp(line.data(), word.data(), word.size()) != 0) return;
  state.delimiter = line[word.size()];
  state.told = true;
  state.skipped += feed + 1;
}

// The one of comma, semicolon and tab that stands most often in the first line that is not empty, outside quotes.
char finddelimiter(CsvState& state) {
  static constexpr char candidates[] = {',', ';', '\t'};
  long long found[3] = {};
  bool quoted = false;
  bool begun = false;
  for (std::size_t i = state.at; i < state.have; ++i) {
    const char c = state.buffer[i];
    const bool feed = c == '\n' || c == '\r';
    if (c == '"') quoted = !quoted;
    if (feed && !quoted) {
      if (begun) break;
      std::fill_n(found, 3, 0);
    }
    begun = begun || !(feed || c == ' ' || c == '\t');
    if (quoted) continue;
    for (int k = 0; k < 3; ++k) found[k] += c == candidates[k];
  }
  return candidates[std::max_element(found, found + 3) - found];
}

// Told by the mark at its start or by the zero byte of a first letter.
bool isutf16(const CsvState& state) {
  const std::string_view head(state.buffer.data(), std::min<std::size_t>(state.have, 2));
  return head == "\xFF\xFE" || head == "\xFE\xFF" || head.find('\0') != head.npos;
}

// Takes a line that is whole in the buffer and has no quote or stray carriage return in it, with the same outcome as
// the library but in less time: blanks and tabs around a field are dropped, a line of nothing else is passed over.
// False when the library has to take it.
bool takeplainline(CsvState& state) {
  const char* from = state.buffer.data() + state.at;
  const char* feed = static_cast<const char*>(std::memchr(from, '\n', state.have - state.at));
  if (feed == nullptr) return false;
  std::string_view line(from, static_cast<std::size_t>(feed - from));
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.find('"') != line.npos || line.find('\r') != line.npos) return false;
  state.at += static_cast<std::size_t>(feed - from) + 1;
  state.fieldline = ++state.feeds;
  const auto blank = [&](char c) { return (c == ' ' || c == '\t') && c != state.delimiter; };
  if (std::all_of(line.begin(), line.end(), blank)) return true;
  const char* end = line.data() + line.size();
  for (const char* field = line.data();; ++field) {
    double value = 0.0;
    const char* stop = startswithnumber(field, end, value);
    if (stop != nullptr && (stop == end || *stop == state.delimiter)) {
      storefield(state, {field, static_cast<std::size_t>(stop - field)}, &value);
    } else {
      stop = std::find(field, end, state.delimiter);
      const char* first = std::find_if_not(field, stop, blank);
      const char* last = stop;
      while (last > first && blank(last[-1])) --last;
      storefield(state, {first, static_cast<std::size_t>(last - first)});
    }
    if (stop == end) break;
    field = stop;
  }
  state.complete = true;
  return true;
}

// The next row that is not empty; false when there is none.
bool nextrow(CsvState& state) {
  state.columns = 0;
  state.complete = false;
  bool begun = false;  // the library may hold a part of the row
  while (!state.complete && !state.ended && !state.overlong) {
    if (state.at == state.have && !fillbuffer(state)) {
      state.ended = true;
      state.openline = true;
      // A last field whose quotes are still open is refused, and its row with it.
      csv_set_opts(&state.parser, CSV_STRICT | CSV_STRICT_FINI);
      state.openquote = csv_fini(&state.parser, takefield, takeend, &state) != 0;
      break;
    }
    if (!begun && takeplainline(state)) continue;
    state.line = state.feeds + 1;
    if (!begun) state.fieldline = state.line;
    begun = true;
    const char* from = state.buffer.data() + state.at;
    const char* end = state.buffer.data() + state.have;
    const char* to = std::find_if(from, end, [](char c) { return c == '\n' || c == '\r'; });
    if (to != end) state.feeds += *to++ == '\n';
    const auto length = static_cast<std::size_t>(to - from);
    if (csv_parse(&state.parser, from, length, takefield, takeend, &state) != length) fail(3);
    state.at += length;
    state.overlong = state.parser.entry_pos > longestfield;
  }
  return state.complete && !state.overlong;
}

// The line on which the row in hand ended, from 1.
long long lineof(const CsvState& state) {
  const bool afterfeed = state.at > 0 && state.at <= state.have && state.buffer[state.at - 1] == '\n';
  return state.feeds + (afterfeed && !state.openline ? 0 : 1);
}

std::string toolong(const CsvState& state) {
  return formatted("line %lld has a field of more than %zu bytes", lineof(state), longestfield);
}

// To the first record, the header line being passed over.
void startrecords(CsvState& state, Purpose purpose) {
  startover(state, Purpose::count);
  (void)nextrow(state);
  state.purpose = purpose;
}

// Columns whose decimal sign is not the one of the file become texts.
void settlesigns(StFile& file) {
  const CsvState& state = stateof(file);
  bool commas = false;
  for (std::size_t v = 0; v < file.variables.size(); ++v)
    commas = commas || (file.variables[v].numeric && state.signs[v] == hascomma);
  for (std::size_t v = 0; v < file.variables.size(); ++v)
    if ((state.signs[v] & haspoint) != 0 && (commas || state.signs[v] != haspoint)) {
      if (file.variables[v].numeric) file.variables[v].why = "it has points where the file has decimal commas";
      file.variables[v].numeric = false;
    }
}

// One pass over all rows: the kinds of the columns and the number of records. False for a file that is no table.
bool settlekinds(StFile& file) {
  CsvState& state = stateof(file);
  startrecords(state, Purpose::kinds);
  for (StVariable& variable : file.variables) variable.numeric = true;
  state.signs.reset(file.variables.size());
  while (nextrow(state)) {
    if (state.columns != file.variables.size()) {
      if (!(state.openline && state.columns < file.variables.size())) {
        file.trouble = formatted("line %lld has %zu fields, the header line has %zu", lineof(state), state.columns,
                                 file.variables.size());
        return false;
      }
      state.cut = formatted("it ends in the middle of line %lld, which does not count", lineof(state));
      break;
    }
    ++state.goodrows;
    state.lastopen = state.openline;
  }
  if (state.overlong) {
    file.trouble = toolong(state);
    return false;
  }
  settlesigns(file);
  if (state.openquote)
    state.cut = formatted("a quote in line %lld opens a field that never ends; record %lld is the last one that counts",
                          state.fieldline, state.goodrows);
  if (state.cut.empty() && state.lastopen) state.cut = "no line end follows its last line, which counts all the same";
  return true;
}

}  // namespace

bool csvdictionary(StFile& file) {
  auto* state = new CsvState;
  file.state = state;
  state->file = &file;
  state->buffer.reset(piecesize);
  state->stream = std::fopen(file.path.c_str(), "rb");
  if (state->stream == nullptr) {
    file.trouble = ST_CannotOpen;
    return false;
  }
  startover(*state, Purpose::count);
  if (isutf16(*state)) {
    file.trouble = "its characters have two bytes each (UTF-16); save it as UTF-8";
    return false;
  }
  skipforeword(*state);
  state->at = state->skipped;
  if (!state->told) state->delimiter = finddelimiter(*state);
  startover(*state, Purpose::count);
  if (!nextrow(*state)) {
    file.trouble = state->overlong ? toolong(*state) : "it has no header line";
    return false;
  }
  makevariables(file, state->columns);
  startover(*state, Purpose::names);
  (void)nextrow(*state);
  if (!settlekinds(file)) return false;
  startrecords(*state, Purpose::values);
  return true;
}

bool csvrecord(StFile& file) {
  CsvState& state = stateof(file);
  if (state.given == state.goodrows || !nextrow(state)) {
    file.trouble = state.cut;
    return false;
  }
  ++state.given;
  return true;
}

void csvclose(StFile& file) {
  CsvState* state = &stateof(file);
  csv_free(&state->parser);
  if (state->stream != nullptr) std::fclose(state->stream);
  delete state;
  file.state = nullptr;
}

}  // namespace kdr
