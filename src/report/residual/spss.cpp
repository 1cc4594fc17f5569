#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>

#include "driver/runrecord.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

constexpr std::size_t textidwidth = 16;  // two slots

constexpr std::int32_t formatF12_3 = 0x00050c03, formatF8_0 = 0x00050800, formatA12 = 0x00010c00;

void puttext(ResultFile& out, const std::string& text, std::size_t width) {
  std::string field = text.substr(0, width);
  field.resize(width, ' ');
  writeresult(out, field);
}

void putints(ResultFile& out, std::initializer_list<std::int32_t> values) {
  for (const std::int32_t value : values) writevalue(out, value);
}

void putvariable(ResultFile& out, std::int32_t type, bool missing, std::int32_t format, const std::string& name) {
  putints(out, {2, type, 0, missing ? 1 : 0, format, format});
  puttext(out, name, 8);
  if (missing) writevalue(out, missingmark(ResidualForm::spss));
}

int slots(const ResidualColumns& layout) {
  return static_cast<int>(layout.ids().size()) * (layout.textids ? 2 : 1) + (layout.hascount() ? 1 : 0) +
         static_cast<int>(layout.columns.size());
}

void puthead(ResultFile& out, const ResidualColumns& layout, int cases) {
  char text[65];
  std::snprintf(text, sizeof text, "$FL2@(#) SPSS DATA FILE from %s version %.2f", module, std::atof(version));
  puttext(out, text, 64);
  putints(out, {2, slots(layout), 0, 0, cases});
  writevalue(out, 100.0);
  static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::tm& now = run.id.started;
  std::snprintf(text, sizeof text, "%2d %3s %02d%2d:%2d:%2d", now.tm_mday, months[now.tm_mon % 12], now.tm_year - 100,
                now.tm_hour, now.tm_min, now.tm_sec);
  puttext(out, text, 84);
}

// The record that pairs short and full names; nothing when no column has a full name of its own.
void putlongnames(ResultFile& out, const ResidualColumns& layout) {
  std::string pairs;
  for (const ResidualColumn& column : layout.columns) {
    if (column.longname.empty()) continue;
    if (!pairs.empty()) pairs += '\t';
    pairs += column.shortname + "=" + column.longname;
  }
  if (pairs.empty()) return;
  putints(out, {7, 13, 1, static_cast<std::int32_t>(pairs.size())});
  writeresult(out, pairs);
}

void putid(const ResidualFile& file, const Id& id, char* slot) {
  if (!file.columns.textids) {
    std::memcpy(slot, &id.number, sizeof id.number);
    return;
  }
  const char* text = id.text.text + std::strspn(id.text.text, " ");
  std::size_t length = std::strlen(text);
  while (length > 0 && text[length - 1] == ' ') --length;
  std::memset(slot, ' ', textidwidth);
  std::memcpy(slot, text, length);
}

}  // namespace

void writeheadspss(ResidualFile& file, int cases) {
  const ResidualColumns& layout = file.columns;
  ResultFile& out = file.out;
  puthead(out, layout, cases);
  for (const char* name : layout.ids()) {
    if (layout.textids) {
      putvariable(out, 12, false, formatA12, name);
      putvariable(out, -1, false, 0, "");
    } else {
      putvariable(out, 0, false, formatF8_0, name);
    }
  }
  if (layout.hascount()) putvariable(out, 0, false, formatF8_0, layout.countname());
  for (const ResidualColumn& column : layout.columns)
    putvariable(out, 0, column.group == ColumnGroup::OL, column.group == ColumnGroup::record ? formatF8_0 : formatF12_3,
                column.shortname);
  putlongnames(out, layout);
  putints(out, {999, 0});
}

void writerowspss(ResidualFile& file, const ResidualRow& row) {
  const ResidualColumns& layout = file.columns;
  eachid(layout, row, [&](const Id& id) {
    char text[textidwidth];
    putid(file, id, text);
    writeresult(file.out, text, layout.textids ? textidwidth : sizeof(double));
  });
  if (layout.hascount()) writevalue<double>(file.out, row.count);
  writeresult(file.out, row.values, layout.columns.size() * sizeof(double));
}

}  // namespace kdr
