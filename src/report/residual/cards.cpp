#include <algorithm>

#include "report/residual/forms.h"
#include "report/residual/numbers.h"

namespace kdr {

namespace {

constexpr int idwidth12 = 12;
constexpr int valuewidth = 11;

void appendid(ResultFile& out, const ResidualFile& file, const Id& id) {
  if (file.columns.textids) {
    appendtext(out, id.text.text, idwidth12);
  } else {
    appendfield(out, id.number, idwidth12, 0);
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
  eachid(layout, row, [&](const Id& id) { appendid(out, file, id); });
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
