#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "driver/runrecord.h"
#include "report/residual/forms.h"
#include "report/residual/residualfiles.h"

namespace kdr {

namespace {

constexpr std::size_t slotwidth = 8, longesttext = 255, longestlabel = 255;

constexpr std::int32_t formatF12_3 = 0x00050c03, formatF8_0 = 0x00050800, formatA0 = 0x00010000;

std::size_t idwidth(const ResidualColumns& layout, int which) { return std::min(layout.idwidth[which], longesttext); }
std::size_t idslots(const ResidualColumns& layout, int which) {
  return layout.textid[which] ? (idwidth(layout, which) + slotwidth - 1) / slotwidth : 1;
}

// As much of a text as there is room for, and no part of a character.
std::string cut(const std::string& text, std::size_t width) {
  while (width > 0 && width < text.size() && (static_cast<unsigned char>(text[width]) & 0xC0U) == 0x80U) --width;
  return text.substr(0, width);
}

void puttext(ResultFile& out, const std::string& text, std::size_t width) {
  std::string field = text.substr(0, width);
  field.resize(width, ' ');
  writeresult(out, field);
}

void putints(ResultFile& out, std::initializer_list<std::int32_t> values) {
  for (const std::int32_t value : values) writevalue(out, value);
}

void putvariable(ResultFile& out, std::int32_t type, bool missing, std::int32_t format, const std::string& name,
                 const std::string& label = {}) {
  putints(out, {2, type, label.empty() ? 0 : 1, missing ? 1 : 0, format, format});
  puttext(out, name, 8);
  if (const std::string shown = cut(label, longestlabel); !shown.empty()) {
    constexpr std::size_t whole = 4;
    writevalue(out, static_cast<std::int32_t>(shown.size()));
    puttext(out, shown, (shown.size() + whole - 1) / whole * whole);
  }
  if (missing) writevalue(out, missingmark(ResidualForm::spss));
}

int slots(const ResidualColumns& layout) {
  std::size_t ids = 0;
  layout.eachid([&](int which) { ids += idslots(layout, which); });
  return static_cast<int>(ids + (layout.hascount() ? 1 : 0) + layout.columns.size());
}

// What the files begin with; the version follows.
std::string mark() { return std::string("$FL2@(#) SPSS DATA FILE from ") + module + " version "; }

void puthead(ResultFile& out, const ResidualColumns& layout, const std::string& label, int cases) {
  char text[65];
  std::snprintf(text, sizeof text, "%s%.2f", mark().c_str(), std::atof(version));
  puttext(out, text, 64);
  putints(out, {2, slots(layout), 0, 0, cases});
  writevalue(out, 100.0);
  static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::tm& now = run.id.started;
  std::snprintf(text, sizeof text, "%2d %3s %02d%2d:%2d:%2d", now.tm_mday, months[now.tm_mon % 12], now.tm_year - 100,
                now.tm_hour, now.tm_min, now.tm_sec);
  puttext(out, text + cut(label, 64), 84);
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

void putid(ResidualFile& file, int which, const Id& id) {
  if (!file.columns.textid[which]) {
    writevalue(file.out, id.number);
    return;
  }
  std::string text = file.columns.idtext(which, id);
  text.erase(text.find_last_not_of(' ') + 1);
  text.erase(0, text.find_first_not_of(' '));
  puttext(file.out, cut(text, longesttext), idslots(file.columns, which) * slotwidth);
}

// Names and labels of the MDM file are in UTF-8, which a file that has such labels says.
void putencoding(ResultFile& out, const ResidualColumns& layout) {
  const bool labels = std::any_of(layout.columns.begin(), layout.columns.end(),
                                  [](const ResidualColumn& column) { return !column.label.empty(); });
  constexpr std::string_view encoding = "UTF-8";
  if (!labels) return;
  putints(out, {7, 20, 1, static_cast<std::int32_t>(encoding.size())});
  writeresult(out, encoding);
}

}  // namespace

void writeheadspss(ResidualFile& file, int cases) {
  const ResidualColumns& layout = file.columns;
  ResultFile& out = file.out;
  puthead(out, layout, file.label, cases);
  layout.eachid([&](int which) {
    if (!layout.textid[which]) return putvariable(out, 0, false, formatF8_0, ResidualColumns::idname(which));
    const auto width = static_cast<std::int32_t>(idwidth(layout, which));
    putvariable(out, width, false, formatA0 + (width << 8), ResidualColumns::idname(which));
    for (std::size_t slot = 1; slot < idslots(layout, which); ++slot) putvariable(out, -1, false, 0, "");
  });
  if (layout.hascount()) putvariable(out, 0, false, formatF8_0, layout.countname());
  for (const ResidualColumn& column : layout.columns)
    putvariable(out, 0, column.group == ColumnGroup::OL, column.group == ColumnGroup::record ? formatF8_0 : formatF12_3,
                column.shortname, column.label);
  putlongnames(out, layout);
  putencoding(out, layout);
  putints(out, {999, 0});
}

void writerowspss(ResidualFile& file, const ResidualRow& row) {
  const ResidualColumns& layout = file.columns;
  layout.eachid([&](int which) { putid(file, which, row.id(which)); });
  if (layout.hascount()) writevalue<double>(file.out, row.count);
  writeresult(file.out, row.values, layout.columns.size() * sizeof(double));
}

bool isownspss(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  std::string head(mark().size(), '\0');
  return file != nullptr && std::fread(head.data(), 1, head.size(), file.get()) == head.size() && head == mark();
}

}  // namespace kdr
