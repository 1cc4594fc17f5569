#include <string>

#include "core/formatted.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

std::string groupnames(const ResidualColumns& layout, ColumnGroup group) {
  std::string text;
  int n = 0;
  for (const ResidualColumn* column : layout.of(group)) {
    if (n > 0) text += n % valuesperline == 0 && group != ColumnGroup::OL && group != ColumnGroup::fit ? "\n" : " ";
    text += column->name;
    ++n;
  }
  return text + "\n";
}

std::string groupformat(const ResidualColumns& layout, ColumnGroup group, int& line) {
  std::string text;
  char item[32];
  for (const int n : linesof(layout.number(group))) {
    std::snprintf(item, sizeof item, "#%d %2d*11.%d ", ++line, n, decimalsof(group));
    text += item;
  }
  return text + "\n";
}

}  // namespace

void writeheadsas(ResidualFile& file, int) {
  const ResidualColumns& layout = file.columns;
  std::string head = "libname dir \".\";\ndata dir.resfil" + std::to_string(layout.level) + ";\ninfile cards;\nINPUT (";
  layout.eachid([&](int which) { head += std::string(ResidualColumns::idname(which)) + " "; });
  head += layout.hascount() ? std::string(layout.countname()) + "\n" : groupnames(layout, ColumnGroup::fit);
  const std::vector<ColumnGroup> groups = linegroups(layout);
  for (const ColumnGroup group : groups) head += groupnames(layout, group);

  head += ") (";
  layout.eachid(
      [&](int which) { head += formatted("%s%zu. ", layout.textid[which] ? "$" : "", layout.idwidth[which]); });
  head += layout.hascount() ? std::to_string(file.countwidth) + ".\n"
                            : std::to_string(layout.number(ColumnGroup::fit)) + "*11.5\n";
  int line = 1;
  for (const ColumnGroup group : groups) head += groupformat(layout, group, line);
  head += ");\n";
  if (layout.number(ColumnGroup::OL) > 0) {
    const std::string last = layout.of(ColumnGroup::OL).back()->name;
    head += "array v " + std::string(layout.countname()) + " -- " + last + ";\ndo over v;\nif v=-99 then v=.;\nend;\n";
  }
  writeresult(file.out, head + "cards;\n");
}

}  // namespace kdr
