// Workbooks of Excel 97 to 2003 through FreeXL: the first sheet, its first row being the names.
#include <freexl.h>

#include <cstdio>

#include "data/readers/stlayer.h"

namespace kdr {

namespace {

struct ExcelState {
  const void* book = nullptr;
  unsigned int rows = 0;
  unsigned short columns = 0;
  unsigned int next = 1;
};

ExcelState& stateof(StFile& file) { return *static_cast<ExcelState*>(file.state); }

// A cell as a number or as a text.
struct Cell {
  bool missing = true;
  bool numeric = false;
  double number = 0.0;
  std::string text;
};

Cell cellof(const ExcelState& state, unsigned int row, unsigned short column) {
  Cell cell;
  FreeXL_CellValue value{};
  if (freexl_get_cell_value(state.book, row, column, &value) != FREEXL_OK) return cell;
  switch (value.type) {
    case FREEXL_CELL_INT:
      cell.numeric = true;
      cell.number = value.value.int_value;
      cell.text = stwords("%d", value.value.int_value);
      break;
    case FREEXL_CELL_DOUBLE:
      cell.numeric = true;
      cell.number = value.value.double_value;
      cell.text = stwords("%.15g", value.value.double_value);
      break;
    case FREEXL_CELL_TEXT:
    case FREEXL_CELL_SST_TEXT:
    case FREEXL_CELL_DATE:
    case FREEXL_CELL_DATETIME:
    case FREEXL_CELL_TIME:
      if (value.value.text_value != nullptr) cell.text = value.value.text_value;
      break;
    default:
      return cell;
  }
  cell.missing = missingfield(cell.text);
  return cell;
}

bool openbook(StFile& file) {
  ExcelState& state = stateof(file);
  const int result = freexl_open(file.path.c_str(), &state.book);
  unsigned int locked = FREEXL_BIFF_PLAIN;
  unsigned int sheets = 0;
  if (result != FREEXL_OK) {
    file.trouble = stwords("it is no undamaged workbook of Excel 97 to 2003 (code %d)", result);
  } else if (freexl_get_info(state.book, FREEXL_BIFF_PASSWORD, &locked) == FREEXL_OK && locked != FREEXL_BIFF_PLAIN) {
    file.trouble = "it is protected by a password";
  } else if (freexl_get_info(state.book, FREEXL_BIFF_SHEET_COUNT, &sheets) != FREEXL_OK || sheets == 0 ||
             freexl_select_active_worksheet(state.book, 0) != FREEXL_OK ||
             freexl_worksheet_dimensions(state.book, &state.rows, &state.columns) != FREEXL_OK || state.rows == 0 ||
             state.columns == 0) {
    file.trouble = "its first sheet is empty";
  }
  return file.trouble.empty();
}

}  // namespace

bool exceldictionary(StFile& file) {
  file.state = new ExcelState;
  if (!openbook(file)) return false;
  const ExcelState& state = stateof(file);
  makevariables(file, state.columns);
  for (unsigned short c = 0; c < state.columns; ++c) {
    StVariable& variable = file.variables[c];
    nameit(variable, cellof(state, 0, c).text);
    variable.numeric = true;
    for (unsigned int r = 1; r < state.rows; ++r) {
      const Cell cell = cellof(state, r, c);
      if (cell.missing) continue;
      variable.numeric = variable.numeric && cell.numeric;
      if (static_cast<std::size_t>(variable.width) < cell.text.size())
        variable.width = static_cast<int>(cell.text.size());
    }
  }
  return true;
}

bool excelrecord(StFile& file) {
  ExcelState& state = stateof(file);
  while (state.next < state.rows) {
    const unsigned int row = state.next++;
    bool found = false;
    for (unsigned short c = 0; c < state.columns; ++c) {
      const StVariable& variable = file.variables[c];
      if (!variable.selected && found) continue;
      const Cell cell = cellof(state, row, c);
      found = found || !cell.missing;
      if (!variable.selected) continue;
      if (variable.numeric) {
        file.numbers[c] = cell.missing ? missingcode : stnumber(cell.number);
      } else {
        file.texts[c] = cell.missing ? StText{} : sttext(cell.text);
      }
    }
    if (found) return true;  // a row without a cell is no record
  }
  return false;
}

void excelclose(StFile& file) {
  ExcelState* state = &stateof(file);
  if (state->book != nullptr) freexl_close(state->book);
  delete state;
  file.state = nullptr;
}

}  // namespace kdr
