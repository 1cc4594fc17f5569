// Sheets of workbooks, row by row: what the reader of one kind of workbook has to supply to stlayer_excel.cpp.
#pragma once

#include "construct/readers/stlayer.h"

namespace kdr {

struct SheetCell {
  enum class Kind { empty, number, text } kind;
  double number;
  std::string text;
  int width;  // characters of the text
};

// A text that cells share.
struct SharedText {
  std::string text;
  int width;
};

// The cells of a row from column A on. Those behind `count` are left from rows before.
struct SheetRow {
  std::vector<SheetCell> cells;
  std::size_t count = 0;
};

// One kind of workbook. A function that returns a null pointer or false for a fault sets `trouble`.
struct SheetSource {
  // Opens the workbook and goes to the first row of its first sheet.
  void* (*open)(const std::string& path, std::string& trouble);
  // The next row; false behind the last one and at a fault.
  bool (*row)(void* book, SheetRow& row, std::string& trouble);
  // Back to the first row.
  bool (*rewind)(void* book, std::string& trouble);
  void (*close)(void* book);
};

extern const SheetSource xlssource;   // Excel 97 to 2003
extern const SheetSource xlsxsource;  // Excel 2007 and later

// The place for the cell of a column (from 0), the columns before it being filled up with empty cells.
[[nodiscard]] SheetCell& cellat(SheetRow& row, std::size_t column);
void settext(SheetCell& cell, std::string_view text);
void setnumber(SheetCell& cell, double number);
void setshared(SheetCell& cell, const SharedText& shared);

// What a number format makes of a number: bit 0 a date, bit 1 a time of the day.
constexpr unsigned showsdate = 1, showstime = 2;
[[nodiscard]] unsigned formatshows(std::string_view code);
// Likewise of the formats that every workbook has, by number; those of East Asian dates included.
[[nodiscard]] unsigned builtinshows(long long format);
// A number, or the text of the date or time that its format shows.
void setdated(SheetCell& cell, double value, unsigned shows, bool from1904);

}  // namespace kdr
