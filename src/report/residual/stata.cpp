#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/constants.h"
#include "core/formatted.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

constexpr std::size_t longesttext = 244, longestlabel = 80;
constexpr unsigned char typedouble = 255, typelong = 253;

// One variable of the file's head.
struct Variable {
  std::string name;
  unsigned char type;
  std::string format;
  std::string label;
};

std::size_t idwidth(const ResidualColumns& layout, int which) { return std::min(layout.idwidth[which], longesttext); }

// As much of a text as there is room for, and no part of a character.
std::string cut(const std::string& text, std::size_t width) {
  while (width > 0 && width < text.size() && (static_cast<unsigned char>(text[width]) & 0xC0U) == 0x80U) --width;
  return text.substr(0, width);
}

std::vector<Variable> variables(const ResidualColumns& layout) {
  std::vector<Variable> list;
  layout.eachid([&](int which) {
    const bool text = layout.textid[which];
    list.push_back({ResidualColumns::idname(which),
                    text ? static_cast<unsigned char>(idwidth(layout, which)) : typedouble,
                    text ? formatted("%%%zus", idwidth(layout, which)) : "%12.0f", ""});
  });
  if (layout.hascount()) list.push_back({layout.countname(), typelong, "%9.0f", ""});
  for (const ResidualColumn& column : layout.columns)
    list.push_back(
        {column.stataname, typedouble, column.group == ColumnGroup::record ? "%9.0f" : "%9.3g", column.label});
  return list;
}

void putpadded(ResultFile& out, std::string text, std::size_t width) {
  text.resize(width, '\0');
  writeresult(out, text);
}

void writeid(ResidualFile& file, int which, const Id& id) {
  if (!file.columns.textid[which]) {
    writevalue(file.out, id.number);
    return;
  }
  putpadded(file.out, cut(file.columns.idtext(which, id), longesttext), idwidth(file.columns, which));
}

}  // namespace

void writeheadstata(ResidualFile& file, int cases) {
  const std::vector<Variable> list = variables(file.columns);
  ResultFile& out = file.out;
  writeresult(out, std::string_view("\x71\2\1\0", 4));
  writevalue(out, static_cast<std::uint16_t>(list.size()));
  writevalue<std::int32_t>(out, cases);
  putpadded(out, cut(file.label, longestlabel), 81);
  putpadded(out, {}, 18);
  for (const Variable& variable : list) writevalue(out, variable.type);
  for (const Variable& variable : list) putpadded(out, variable.name, 33);
  putpadded(out, {}, 2 * list.size() + 2);
  for (const Variable& variable : list) putpadded(out, variable.format, 12);
  putpadded(out, {}, list.size() * 33);
  for (const Variable& variable : list) putpadded(out, cut(variable.label, longestlabel), 81);
  putpadded(out, {}, 5);
}

void writerowstata(ResidualFile& file, const ResidualRow& row) {
  const std::size_t n = file.columns.columns.size();
  file.columns.eachid([&](int which) { writeid(file, which, row.id(which)); });
  if (file.columns.hascount()) writevalue<std::int32_t>(file.out, row.count);
  for (std::size_t i = 0; i < n; ++i)
    writevalue(file.out, row.values[i] == missingcode ? missingmark(ResidualForm::stata) : row.values[i]);
}

}  // namespace kdr
