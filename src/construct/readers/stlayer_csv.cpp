// Delimited text: a header line with the names, then one line for each record.
//
// A field that begins with a quote goes on to the next quote that is not doubled; behind it only blanks may stand. A
// quote within any other field is a character like others. Quotes that could be read in two ways are refused, since the
// wrong one would take the next rows for a part of the field.
//
// The dictionary takes one pass over the file, which settles the kind of each column: numeric when every field that is
// not missing is a number. The records then come line by line.
//
// Where the comma is no delimiter it can be the decimal sign. One sign holds for the whole file: in a file with decimal
// commas a point may part thousands, so its columns with points are no numbers.
#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "construct/readers/plainnumber.h"
#include "construct/readers/stlayer.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/textmark.h"

namespace kdr {

namespace {

constexpr std::size_t piecesize = std::size_t{1} << 16;
constexpr std::size_t longestfield = std::size_t{1} << 20;

constexpr const char* toolong = "the field is longer than any that makes sense";

constexpr unsigned haspoint = 1, hascomma = 2;

enum class Purpose { count, names, kinds, values };

struct CsvState {
  StFile* file = nullptr;
  std::FILE* stream = nullptr;
  char delimiter = ',';
  Purpose purpose = Purpose::count;
  Array<char> buffer;
  Array<unsigned> signs;  // decimal signs in each column's numbers: haspoint, hascomma
  std::size_t at = 0, have = 0;
  long long lines = 0;         // that have ended
  long long column = 0;        // bytes of the line in hand so far, while its row is read byte by byte
  bool afterreturn = false;    // the last of them was a carriage return
  long long fieldline = 1;     // on which the field in hand begins
  std::string field;           // the field in hand
  bool openline = false;       // the row in hand has no line end
  std::size_t columns = 0;     // fields of the row in hand
  long long goodrows = 0;      // records that count
  long long given = 0;         // of them
  bool lastopen = false;       // it has no line end
  long long brokenfields = 0;  // fields that hold line ends
  long long firstbroken = 0;   // line on which the first of them begins
  std::size_t skipped = 0;     // bytes before the header line: a byte order mark, a line that tells the delimiter
  bool told = false;           // there is such a line
  std::string fault;           // why the file cannot be read
  std::string cut;             // how the data end before their time
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
    state.file->texts[column] = field.substr(0, ST_LongestText + 1);  // an ID, which NA can be as well
  }
}

bool fillbuffer(CsvState& state) {
  checksignals();
  state.at = 0;
  state.have = readupto(state.buffer.data(), state.buffer.size(), state.stream, state.file->path);
  return state.have > 0;
}

// Back to the header line.
void startover(CsvState& state, Purpose purpose) {
  state.purpose = purpose;
  state.lines = state.told ? 1 : 0;
  state.openline = false;
  std::rewind(state.stream);
  if (fillbuffer(state)) state.at = state.skipped;
}

// Passes over a byte order mark and a line such as "sep=;", which tells the delimiter.
void skipforeword(CsvState& state) {
  std::string_view text(state.buffer.data(), state.have);
  if (text.starts_with(bytemark)) state.skipped = bytemark.size();
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

bool isblank(const CsvState& state, char c) { return (c == ' ' || c == '\t') && c != state.delimiter; }

std::string_view trimmed(const CsvState& state, std::string_view field) {
  while (!field.empty() && isblank(state, field.front())) field.remove_prefix(1);
  while (!field.empty() && isblank(state, field.back())) field.remove_suffix(1);
  return field;
}

// Takes a line that is whole in the buffer and has no quote or stray carriage return in it. A line of nothing but
// blanks is passed over. False when the line has to be read byte by byte.
bool takeplainline(CsvState& state) {
  const char* from = state.buffer.data() + state.at;
  const char* feed = static_cast<const char*>(std::memchr(from, '\n', state.have - state.at));
  if (feed == nullptr) return false;
  std::string_view line(from, static_cast<std::size_t>(feed - from));
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.find('"') != line.npos || line.find('\r') != line.npos) return false;
  state.at += static_cast<std::size_t>(feed - from) + 1;
  if (!(state.afterreturn && line.empty())) ++state.lines;
  state.afterreturn = false;
  state.fieldline = state.lines;
  if (trimmed(state, line).empty()) return true;
  const char* end = line.data() + line.size();
  for (const char* field = line.data();; ++field) {
    double value = 0.0;
    const char* stop = startswithnumber(field, end, value);
    if (stop != nullptr && (stop == end || *stop == state.delimiter)) {
      storefield(state, {field, static_cast<std::size_t>(stop - field)}, &value);
    } else {
      stop = std::find(field, end, state.delimiter);
      storefield(state, trimmed(state, {field, static_cast<std::size_t>(stop - field)}));
    }
    if (stop == end) break;
    field = stop;
  }
  return true;
}

// The next byte, counted, or -1 at the end of the file.
int nextbyte(CsvState& state) {
  if (state.at == state.have && !fillbuffer(state)) return -1;
  const char c = state.buffer[state.at++];
  const bool ends = c == '\r' || (c == '\n' && !state.afterreturn);  // both together end one line
  state.lines += ends;
  state.column = c == '\r' || c == '\n' ? 0 : state.column + 1;
  state.afterreturn = c == '\r';
  return static_cast<unsigned char>(c);
}

// Where the field in hand begins, for the words on one that is refused.
struct FieldStart {
  long long line, column;
};

void refusefield(CsvState& state, const FieldStart& start, const char* words) {
  state.fault = formatted("line %lld, column %lld: %s", start.line, start.column, words);
}

// The rest of a field behind its opening quote. Returns what stands behind the field: the delimiter, a line end or -1.
int takequoted(CsvState& state, const FieldStart& start, bool afterblank) {
  bool broken = false;
  int c = 0;
  for (;; state.field += static_cast<char>(c)) {
    const long long column = state.column;
    c = nextbyte(state);
    const bool lineend = c == '\r' || c == '\n';
    if (c == '"') {
      const FieldStart closing{state.lines + 1, column + 1};
      c = nextbyte(state);
      if (c != '"') {
        while (c >= 0 && isblank(state, static_cast<char>(c))) c = nextbyte(state);
        if (c >= 0 && c != static_cast<unsigned char>(state.delimiter) && c != '\r' && c != '\n')
          refusefield(state, closing,
                      formatted("a quote closes the field that begins in line %lld, column %lld, and neither the "
                                "delimiter nor a line end follows it",
                                start.line, start.column)
                          .c_str());
        state.brokenfields += broken && state.purpose == Purpose::kinds;
        if (broken && state.firstbroken == 0) state.firstbroken = start.line;
        return c;
      }
    }
    if (c < 0) refusefield(state, start, "a quote opens a field that never ends");
    if (afterblank && (lineend || c == '"' || c == static_cast<unsigned char>(state.delimiter)))
      refusefield(state, start, "blanks stand before the quote that opens the field");
    if (state.field.size() >= longestfield) refusefield(state, start, toolong);
    if (!state.fault.empty()) return c;
    broken = broken || lineend;
  }
}

// Takes a row byte by byte, and passes over an empty one.
void takerow(CsvState& state) {
  state.column = 0;
  bool any = false;  // not an empty row
  for (int c = 0; c != '\r' && c != '\n' && state.fault.empty();) {
    FieldStart start{state.lines + 1, 1};
    bool quoted = false;
    bool blanks = false;
    state.field.clear();
    for (;;) {
      start.column = state.column + 1;
      c = nextbyte(state);
      if (c < 0 || !isblank(state, static_cast<char>(c))) break;
      blanks = true;
    }
    if (c == '"') {
      quoted = true;
      c = takequoted(state, start, blanks);
    } else {
      for (; c >= 0 && c != static_cast<unsigned char>(state.delimiter) && c != '\r' && c != '\n';
           c = nextbyte(state)) {
        state.field += static_cast<char>(c);
        if (state.field.size() > longestfield) return refusefield(state, start, toolong);
      }
    }
    any = any || quoted || !state.field.empty() || c == static_cast<unsigned char>(state.delimiter);
    state.openline = c < 0;
    state.fieldline = start.line;
    if (!any || !state.fault.empty()) return;
    storefield(state, trimmed(state, state.field));
    if (c < 0) return;
  }
}

// The next row that is not empty; false when there is none, or at a fault.
bool nextrow(CsvState& state) {
  state.columns = 0;
  while (state.columns == 0 && !state.openline && state.fault.empty())
    if ((state.at == state.have && !fillbuffer(state)) || !takeplainline(state)) takerow(state);
  return state.columns > 0 && state.fault.empty();
}

// The line on which the row in hand ended, from 1.
long long lineof(const CsvState& state) { return state.lines + (state.openline ? 1 : 0); }

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
  if (!state.fault.empty()) {
    file.trouble = state.fault;
    return false;
  }
  settlesigns(file);
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
  if (const char* wide = widecharacters({state->buffer.data(), state->have})) {
    file.trouble = formatted("its characters have %s; save it as UTF-8", wide);
    return false;
  }
  skipforeword(*state);
  state->at = state->skipped;
  if (!state->told) state->delimiter = finddelimiter(*state);
  startover(*state, Purpose::count);
  if (!nextrow(*state)) {
    file.trouble = state->fault.empty() ? "it has no header line" : state->fault;
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
    if (state.brokenfields > 0)
      file.remark = formatted("fields that hold line ends: %lld, the first one in line %lld", state.brokenfields,
                              state.firstbroken);
    return false;
  }
  ++state.given;
  return true;
}

void csvclose(StFile& file) {
  CsvState* state = &stateof(file);
  if (state->stream != nullptr) std::fclose(state->stream);
  delete state;
  file.state = nullptr;
}

}  // namespace kdr
