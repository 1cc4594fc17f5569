#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "driver/constants.h"
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
  for (int i = 0; i < layout.ids(); ++i)
    list.push_back({i == 0 ? "L3ID" : "L2ID", layout.textids ? static_cast<unsigned char>(textidwidth) : typedouble,
                    layout.textids ? "%12s" : "%12.0f"});
  if (layout.hascount()) list.push_back({layout.countname(), typelong, "%9.0f"});
  for (const ResidualColumn& column : layout.columns) list.push_back({column.stataname, typedouble, "%9.3g"});
  return list;
}

template <class T>
void put(std::string& bytes, T value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void putpadded(std::string& bytes, const std::string& text, std::size_t width) {
  bytes += text;
  bytes.append(width - text.size(), '\0');
}

void writeid(ResidualFile& file, const Id& id) {
  if (!file.columns.textids) {
    writeresult(file.out, &id.number, sizeof id.number);
    return;
  }
  char text[textidwidth] = {};
  std::memcpy(text, id.text.text, strnlen(id.text.text, sizeof text));
  writeresult(file.out, text, sizeof text);
}

}  // namespace

void writeheadstata(ResidualFile& file, int cases) {
  const std::vector<Variable> list = variables(file.columns);
  std::string head = {0x71, 2, 1, 0};
  put(head, static_cast<std::uint16_t>(list.size()));
  put<std::int32_t>(head, cases);
  head.append(81 + 18, '\0');
  for (const Variable& variable : list) head += static_cast<char>(variable.type);
  for (const Variable& variable : list) putpadded(head, variable.name, 33);
  head.append(2 * list.size() + 2, '\0');
  for (const Variable& variable : list) putpadded(head, variable.format, 12);
  head.append(list.size() * (33 + 81) + 5, '\0');
  writeresult(file.out, head);
}

void writerowstata(ResidualFile& file, const ResidualRow& row) {
  const std::size_t n = file.columns.columns.size();
  writeid(file, row.id3);
  if (file.columns.level < 3) writeid(file, row.id2);
  if (file.columns.hascount()) {
    const std::int32_t count = row.count;
    writeresult(file.out, &count, sizeof count);
  }
  for (std::size_t i = 0; i < n; ++i) {
    const double value = row.values[i] == missingcode ? missingmark(ResidualForm::stata) : row.values[i];
    writeresult(file.out, &value, sizeof value);
  }
}

}  // namespace kdr
