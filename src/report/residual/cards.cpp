#include <algorithm>

#include "report/residual/forms.h"
#include "report/residual/numbers.h"

namespace kdr {

namespace {

constexpr int valuewidth = 11;

void appendid(ResultFile& out, const ResidualFile& file, int which, const Id& id) {
  const auto width = static_cast<int>(file.columns.idwidth[which]);
  if (file.columns.textid[which]) {
    appendtext(out, file.columns.idtext(which, id).c_str(), width);
  } else {
    appendfield(out, id.number, width, 0);
  }
}

}  // namespace

std::vector<ColumnGroup> linegroups(const ResidualColumns& columns) {
  std::vector<ColumnGroup> groups;
  for (const ResidualColumn& column : columns.columns)
    if (column.group != ColumnGroup::fit && (groups.empty() || groups.back() != column.group))
      groups.push_back(column.group);
  return groups;
}

int decimalsof(ColumnGroup group) { return group == ColumnGroup::record ? 0 : group == ColumnGroup::PV ? 6 : 5; }

std::vector<int> linesof(int n) {
  std::vector<int> lines;
  for (; n > 0; n -= valuesperline) lines.push_back(std::min(n, valuesperline));
  return lines;
}

void writerowcards(ResidualFile& file, const ResidualRow& row) {
  ResultFile& out = file.out;
  const ResidualColumns& layout = file.columns;
  layout.eachid([&](int which) { appendid(out, file, which, row.id(which)); });
  if (layout.hascount()) appendcount(out, row.count, file.countwidth);
  ColumnGroup group = ColumnGroup::fit;
  int online = 0;
  for (std::size_t i = 0; i < layout.columns.size(); ++i) {
    const ResidualColumn& column = layout.columns[i];
    if (column.group != group || (group != ColumnGroup::fit && online == valuesperline)) {
      writeresult(out, "\n");
      group = column.group;
      online = 0;
    }
    appendfield(out, row.values[i], valuewidth, decimalsof(group));
    ++online;
  }
  writeresult(out, "\n");
}

}  // namespace kdr
