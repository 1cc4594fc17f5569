#include "construct/readers/stlayer_sheet.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <climits>
#include <cmath>

#include "core/formatted.h"

namespace kdr {

namespace {

// A day number with a part of a day as a date, a time, or both. Day 1 is 1 January 1900, day 60 a 29 February that
// never was; in workbooks that count from 1904 day 0 is 1 January of that year.
std::string daytext(double value, unsigned shows, bool from1904) {
  using namespace std::chrono;
  const double whole = std::floor(value);
  const seconds clock(std::llround((value - whole) * 86400.0));
  const auto number = static_cast<int>(whole);
  const sys_days origin =
      from1904 ? sys_days{1904y / January / 1} : sys_days{1899y / December / (number < 60 ? 31 : 30)};
  const auto moment = sys_seconds{origin + days(number)} + clock;
  const auto day = floor<days>(moment);
  const year_month_day date(day);
  const hh_mm_ss time(moment - day);
  const std::string first = formatted("%04d-%02u-%02u", static_cast<int>(date.year()),
                                      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  const std::string second =
      formatted("%02d:%02d:%02d", static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  return shows == showsdate ? first : shows == showstime ? second : first + " " + second;
}

}  // namespace

SheetCell& cellat(SheetRow& row, std::size_t column) {
  if (column >= row.cells.size()) row.cells.resize(std::max(column + 1, 2 * row.cells.size()));
  for (; row.count <= column; ++row.count) row.cells[row.count] = SheetCell{};
  return row.cells[column];
}

void settext(SheetCell& cell, std::string_view text) {
  cell = SheetCell{SheetCell::Kind::text, 0.0, std::string(sttext(text)),
                   static_cast<int>(std::min<std::size_t>(text.size(), INT_MAX))};
  if (missingfield(cell.text)) cell = SheetCell{};
}

void setnumber(SheetCell& cell, double number) { cell = SheetCell{SheetCell::Kind::number, number, {}, 0}; }

void setshared(SheetCell& cell, const SharedText& shared) {
  settext(cell, shared.text);
  if (cell.kind == SheetCell::Kind::text) cell.width = shared.width;
}

void setdated(SheetCell& cell, double value, unsigned shows, bool from1904) {
  constexpr double firstday = 0.0, lastday = 2958466.0;  // 31 December 9999 is the last
  if (shows != 0 && value >= firstday && value < lastday) {
    settext(cell, daytext(value, shows, from1904));
  } else {
    setnumber(cell, value);
  }
}

// Letters count outside quotes and brackets, but [h], [m] and [s] are times that run on.
unsigned formatshows(std::string_view code) {
  unsigned shows = 0;
  bool month = false;
  for (std::size_t i = 0; i < code.size() && code[i] != ';'; ++i) {
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(code[i])));
    if (c == '"') {
      i = std::min(code.find('"', i + 1), code.size());
    } else if (c == '[' && code.find_first_not_of("hHmMsS", i + 1) != code.find(']', i + 1)) {
      i = std::min(code.find(']', i + 1), code.size());
    } else if (c == '\\' || c == '_' || c == '*') {
      ++i;
    }
    if (c == 'y' || c == 'd') shows |= showsdate;
    if (c == 'h' || c == 's') shows |= showstime;
    month = month || c == 'm';
  }
  return shows == 0 && month ? showsdate : shows;
}

unsigned builtinshows(long long format) {
  if (format == 22) return showsdate | showstime;
  if ((format >= 14 && format <= 17) || (format >= 27 && format <= 31) || (format >= 50 && format <= 58) ||
      format == 36)
    return showsdate;
  return (format >= 18 && format <= 21) || (format >= 32 && format <= 35) || (format >= 45 && format <= 47) ? showstime
                                                                                                            : 0;
}

}  // namespace kdr
