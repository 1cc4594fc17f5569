#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "core/constants.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

constexpr std::size_t textidwidth = 12;
constexpr unsigned char typedouble = 255, typelong = 253;

// One variable of the file's head.
struct Variable {
  std::string name;
  unsigned char type;
  const char* format;
};

std::vector<Variable> variables(const ResidualColumns& layout) {
  std::vector<Variable> list;
  for (const char* name : layout.ids())
    list.push_back({name, layout.textids ? static_cast<unsigned char>(textidwidth) : typedouble,
                    layout.textids ? "%12s" : "%12.0f"});
  if (layout.hascount()) list.push_back({layout.countname(), typelong, "%9.0f"});
  for (const ResidualColumn& column : layout.columns)
    list.push_back({column.stataname, typedouble, column.group == ColumnGroup::record ? "%9.0f" : "%9.3g"});
  return list;
}

void putpadded(ResultFile& out, std::string text, std::size_t width) {
  text.resize(width, '\0');
  writeresult(out, text);
}

void writeid(ResidualFile& file, const Id& id) {
  if (!file.columns.textids) {
    writevalue(file.out, id.number);
    return;
  }
  char text[textidwidth] = {};
  std::memcpy(text, id.text.text, strnlen(id.text.text, sizeof text));
  writeresult(file.out, text, sizeof text);
}

}  // namespace

void writeheadstata(ResidualFile& file, int cases) {
  const std::vector<Variable> list = variables(file.columns);
  ResultFile& out = file.out;
  writeresult(out, std::string_view("\x71\2\1\0", 4));
  writevalue(out, static_cast<std::uint16_t>(list.size()));
  writevalue<std::int32_t>(out, cases);
  putpadded(out, {}, 81 + 18);
  for (const Variable& variable : list) writevalue(out, variable.type);
  for (const Variable& variable : list) putpadded(out, variable.name, 33);
  putpadded(out, {}, 2 * list.size() + 2);
  for (const Variable& variable : list) putpadded(out, variable.format, 12);
  putpadded(out, {}, list.size() * (33 + 81) + 5);
}

void writerowstata(ResidualFile& file, const ResidualRow& row) {
  const std::size_t n = file.columns.columns.size();
  eachid(file.columns, row, [&](const Id& id) { writeid(file, id); });
  if (file.columns.hascount()) writevalue<std::int32_t>(file.out, row.count);
  for (std::size_t i = 0; i < n; ++i)
    writevalue(file.out, row.values[i] == missingcode ? missingmark(ResidualForm::stata) : row.values[i]);
}

}  // namespace kdr
