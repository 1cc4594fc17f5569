#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "driver/runrecord.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

constexpr std::size_t textidwidth = 16;  // two slots

constexpr std::int32_t formatF12_3 = 0x00050c03, formatF8_0 = 0x00050800, formatA12 = 0x00010c00;

template <class T>
void put(std::string& bytes, T value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void puttext(std::string& bytes, const std::string& text, std::size_t width) {
  bytes += text.substr(0, width);
  if (text.size() < width) bytes.append(width - text.size(), ' ');
}

void putvariable(std::string& bytes, std::int32_t type, bool missing, std::int32_t format, const std::string& name) {
  put<std::int32_t>(bytes, 2);
  put<std::int32_t>(bytes, type);
  put<std::int32_t>(bytes, 0);
  put<std::int32_t>(bytes, missing ? 1 : 0);
  put(bytes, format);
  put(bytes, format);
  puttext(bytes, name, 8);
  if (missing) put(bytes, missingmark(ResidualForm::spss));
}

int slots(const ResidualColumns& layout) {
  return layout.ids() * (layout.textids ? 2 : 1) + (layout.hascount() ? 1 : 0) +
         static_cast<int>(layout.columns.size());
}

std::string filehead(const ResidualColumns& layout, int cases) {
  char text[65];
  std::string bytes;
  std::snprintf(text, sizeof text, "$FL2@(#) SPSS DATA FILE from %s version %.2f", module, std::atof(version));
  puttext(bytes, text, 64);
  put<std::int32_t>(bytes, 2);
  put<std::int32_t>(bytes, slots(layout));
  put<std::int32_t>(bytes, 0);
  put<std::int32_t>(bytes, 0);
  put<std::int32_t>(bytes, cases);
  put(bytes, 100.0);
  static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::tm& now = run.id.started;
  std::snprintf(text, sizeof text, "%2d %3s %02d%2d:%2d:%2d", now.tm_mday, months[now.tm_mon % 12], now.tm_year - 100,
                now.tm_hour, now.tm_min, now.tm_sec);
  puttext(bytes, text, 84);
  return bytes;
}

// The record that pairs short and full names; nothing when no column has a full name of its own.
std::string longnames(const ResidualColumns& layout) {
  std::string pairs;
  for (const ResidualColumn& column : layout.columns) {
    if (column.longname.empty()) continue;
    if (!pairs.empty()) pairs += '\t';
    pairs += column.shortname + "=" + column.longname;
  }
  std::string bytes;
  if (pairs.empty()) return bytes;
  for (const std::int32_t field : {7, 13, 1, static_cast<std::int32_t>(pairs.size())}) put(bytes, field);
  return bytes + pairs;
}

void putid(const ResidualFile& file, const Id& id, char* slot) {
  if (!file.columns.textids) {
    std::memcpy(slot, &id.number, sizeof id.number);
    return;
  }
  const char* text = id.text.text + std::strspn(id.text.text, " ");
  const std::size_t length = std::strcspn(text, " ");
  std::memset(slot, ' ', textidwidth);
  std::memcpy(slot, text, length);
}

}  // namespace

void writeheadspss(ResidualFile& file, int cases) {
  const ResidualColumns& layout = file.columns;
  std::string head = filehead(layout, cases);
  for (int i = 0; i < layout.ids(); ++i) {
    const char* name = i == 0 ? "L3ID" : "L2ID";
    if (layout.textids) {
      putvariable(head, 12, false, formatA12, name);
      putvariable(head, -1, false, 0, "");
    } else {
      putvariable(head, 0, false, formatF8_0, name);
    }
  }
  if (layout.hascount()) putvariable(head, 0, false, formatF8_0, layout.countname());
  for (const ResidualColumn& column : layout.columns)
    putvariable(head, 0, column.group == ColumnGroup::OL, formatF12_3, column.shortname);
  head += longnames(layout);
  put<std::int32_t>(head, 999);
  put<std::int32_t>(head, 0);
  writeresult(file.out, head);
}

void writerowspss(ResidualFile& file, const ResidualRow& row) {
  const ResidualColumns& layout = file.columns;
  char ids[2 * textidwidth];
  const std::size_t width = layout.textids ? textidwidth : sizeof(double);
  putid(file, row.id3, ids);
  putid(file, row.id2, ids + width);
  writeresult(file.out, ids, width * static_cast<std::size_t>(layout.ids()));
  if (layout.hascount()) {
    const double count = row.count;
    writeresult(file.out, &count, sizeof count);
  }
  writeresult(file.out, row.values, layout.columns.size() * sizeof(double));
}

}  // namespace kdr
