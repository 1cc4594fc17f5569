// Workbooks of Excel 97 to 2003 through FreeXL.
#include <freexl.h>

#include "data/readers/stlayer_sheet.h"

namespace kdr {

namespace {

struct XlsBook {
  const void* book = nullptr;
  unsigned int rows = 0;
  unsigned short columns = 0;
  unsigned int next = 0;
};

void closexls(void* book) {
  auto* xls = static_cast<XlsBook*>(book);
  if (xls->book != nullptr) freexl_close(xls->book);
  delete xls;
}

void* openxls(const std::string& path, std::string& trouble) {
  auto* xls = new XlsBook;
  const int result = freexl_open(path.c_str(), &xls->book);
  unsigned int locked = FREEXL_BIFF_PLAIN;
  unsigned int sheets = 0;
  if (result != FREEXL_OK) {
    trouble = stwords("it is no undamaged workbook of Excel (code %d)", result);
  } else if (freexl_get_info(xls->book, FREEXL_BIFF_PASSWORD, &locked) == FREEXL_OK && locked != FREEXL_BIFF_PLAIN) {
    trouble = "it is protected by a password";
  } else if (freexl_get_info(xls->book, FREEXL_BIFF_SHEET_COUNT, &sheets) != FREEXL_OK || sheets == 0 ||
             freexl_select_active_worksheet(xls->book, 0) != FREEXL_OK ||
             freexl_worksheet_dimensions(xls->book, &xls->rows, &xls->columns) != FREEXL_OK) {
    trouble = "its first sheet cannot be read";
  }
  if (trouble.empty()) return xls;
  closexls(xls);
  return nullptr;
}

bool rewindxls(void* book, std::string&) {
  static_cast<XlsBook*>(book)->next = 0;
  return true;
}

bool rowofxls(void* book, SheetRow& row, std::string&) {
  XlsBook& xls = *static_cast<XlsBook*>(book);
  if (xls.next >= xls.rows) return false;
  row.count = 0;
  for (unsigned short c = 0; c < xls.columns; ++c) {
    SheetCell& cell = cellat(row, c);
    FreeXL_CellValue value{};
    if (freexl_get_cell_value(xls.book, xls.next, c, &value) != FREEXL_OK) continue;
    switch (value.type) {
      case FREEXL_CELL_INT:
        setnumber(cell, value.value.int_value);
        break;
      case FREEXL_CELL_DOUBLE:
        setnumber(cell, value.value.double_value);
        break;
      case FREEXL_CELL_TEXT:
      case FREEXL_CELL_SST_TEXT:
      case FREEXL_CELL_DATE:
      case FREEXL_CELL_DATETIME:
      case FREEXL_CELL_TIME:
        if (value.value.text_value != nullptr) settext(cell, value.value.text_value);
        break;
      default:
        break;
    }
  }
  ++xls.next;
  return true;
}

}  // namespace

const SheetSource xlssource = {openxls, rowofxls, rewindxls, closexls};

}  // namespace kdr
