// Workbooks of Excel: the first row that has a cell holds the names, each row below it is a record.
//
// The dictionary takes one pass over the sheet, which settles the kind of each column: numeric when every cell that is
// not missing is a number.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "construct/readers/stlayer_sheet.h"
#include "core/formatted.h"
#include "driver/files.h"

namespace kdr {

namespace {

constexpr std::size_t mostshown = 40;  // bytes of a text in a message

struct ExcelState {
  const SheetSource* source = nullptr;
  void* book = nullptr;
  SheetRow row;
};

ExcelState& stateof(StFile& file) { return *static_cast<ExcelState*>(file.state); }

// The workbooks of Excel 2007 and later are zip archives. Null when the file cannot be opened.
const SheetSource* sourceof(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(path.c_str(), "rb"), std::fclose);
  if (stream == nullptr) return nullptr;
  char head[2] = "";
  const bool whole = readupto(head, sizeof head, stream.get(), path) == sizeof head;
  return whole && std::memcmp(head, "PK", sizeof head) == 0 ? &xlsxsource : &xlssource;
}

// The next row that has a cell with a value; false when there is none.
bool nextrow(StFile& file) {
  ExcelState& state = stateof(file);
  const auto filled = [](const SheetCell& cell) { return cell.kind != SheetCell::Kind::empty; };
  while (state.source->row(state.book, state.row, file.trouble))
    if (std::any_of(state.row.cells.begin(), state.row.cells.begin() + state.row.count, filled)) return true;
  return false;
}

std::string textof(const SheetCell& cell) {
  if (cell.kind == SheetCell::Kind::text) return cell.text;
  return cell.kind == SheetCell::Kind::number ? formatted("%.15g", cell.number) : std::string();
}

// Room for `count` variables, doubled as needed; those that are new are numeric until a text shows up.
void growvariables(std::vector<StVariable>& variables, std::size_t count) {
  std::size_t at = variables.size();
  if (at >= count) return;
  variables.resize(std::max(count, 2 * at));
  for (; at < variables.size(); ++at) variables[at].numeric = true;
}

}  // namespace

bool exceldictionary(StFile& file) {
  auto* state = new ExcelState;
  file.state = state;
  state->source = sourceof(file.path);
  file.trouble = state->source == nullptr ? ST_CannotOpen : "";
  if (state->source == nullptr) return false;
  state->book = state->source->open(file.path, file.trouble);
  if (state->book == nullptr) return false;
  if (!nextrow(file)) {
    if (file.trouble.empty()) file.trouble = "its first sheet is empty";
    return false;
  }
  std::vector<StVariable> variables;
  std::size_t columns = state->row.count;
  growvariables(variables, columns);
  for (std::size_t c = 0; c < columns; ++c) nameit(variables[c], textof(state->row.cells[c]));
  long long row = 1;
  while (nextrow(file)) {
    ++row;
    columns = std::max(columns, state->row.count);
    growvariables(variables, columns);
    for (std::size_t c = 0; c < state->row.count; ++c) {
      const SheetCell& cell = state->row.cells[c];
      if (cell.kind != SheetCell::Kind::text) continue;
      if (variables[c].numeric)
        variables[c].why =
            formatted("row %lld of the table holds \"%s\"", row, printable(cell.text.substr(0, mostshown)).c_str());
      variables[c].numeric = false;
      variables[c].width = std::max(variables[c].width, cell.width);
    }
  }
  if (!file.trouble.empty()) return false;
  makevariables(file, columns);
  std::copy_n(variables.begin(), columns, file.variables.begin());
  return state->source->rewind(state->book, file.trouble) && nextrow(file);
}

bool excelrecord(StFile& file) {
  ExcelState& state = stateof(file);
  if (!nextrow(file)) return false;
  for (std::size_t v = 0; v < file.variables.size(); ++v) {
    if (!file.variables[v].selected) continue;
    const SheetCell cell = v < state.row.count ? state.row.cells[v] : SheetCell{};
    if (file.variables[v].numeric) {
      file.numbers[v] = cell.kind == SheetCell::Kind::number ? stnumber(cell.number) : missingcode;
    } else {
      file.texts[v] = textof(cell);
    }
  }
  return true;
}

void excelclose(StFile& file) {
  ExcelState* state = &stateof(file);
  if (state->book != nullptr) state->source->close(state->book);
  delete state;
  file.state = nullptr;
}

}  // namespace kdr
