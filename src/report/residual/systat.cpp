#include <string>

#include "core/formatted.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

// The names of a group; those of all but OL break after each seventh.
std::string groupnames(const ResidualColumns& layout, ColumnGroup group) {
  std::string text;
  int n = 0;
  for (const ResidualColumn* column : layout.of(group)) {
    if (n > 0 && n % valuesperline == 0 && group != ColumnGroup::OL) text += "\n";
    text += group == ColumnGroup::chosen ? rightjustified(column->name, 8) + ", " : column->name + ",";
    ++n;
  }
  return text + "\n";
}

// How the lines of a group are read: "n*#11" each, "/" to the next line.
std::string groupformat(const ResidualColumns& layout, ColumnGroup group) {
  std::string text;
  char item[16];
  for (const int n : linesof(layout.number(group))) {
    std::snprintf(item, sizeof item, "%2d*#11", n);
    if (group == ColumnGroup::PV && !text.empty()) text += "/";
    text += item;
    if (group != ColumnGroup::PV) text += "/";
  }
  if (group == ColumnGroup::PV && layout.number(ColumnGroup::chosen) > 0) text += "/";
  return text + ",\n";
}

}  // namespace

void writeheadsystat(ResidualFile& file, int) {
  const ResidualColumns& layout = file.columns;
  const std::string level = std::to_string(layout.level);
  const auto kind = [&](int which) { return layout.textid[which] ? "$" : ""; };
  const auto idformat = [&](int which) {
    return formatted("%s%zu,", layout.textid[which] ? "$" : "#", layout.idwidth[which]);
  };
  std::string head = "BASIC\nSAVE RESFIL" + level + "\nINPUT (";
  layout.eachid([&](int which) { head += std::string(ResidualColumns::idname(which)) + kind(which) + ","; });
  if (layout.hascount()) {
    head += std::string(layout.countname()) + ",\n";
  } else {
    head += groupnames(layout, ColumnGroup::fit);
  }
  const std::vector<ColumnGroup> groups = linegroups(layout);
  for (const ColumnGroup group : groups) head += groupnames(layout, group);

  if (layout.hascount()) {
    head += "),(";
    layout.eachid([&](int which) { head += idformat(which); });
    char item[16];
    std::snprintf(item, sizeof item, "#%d/", file.countwidth);
    head += item;
  } else {
    const bool alike = layout.withid3 && idformat(0) == idformat(1);
    head += "),(" + (alike ? std::string("2*") + idformat(0) : (layout.withid3 ? idformat(0) : "") + idformat(1)) +
            std::to_string(layout.number(ColumnGroup::fit)) + "*#11";
    if (!groups.empty()) head += "/,";
    head += "\n";
  }
  for (const ColumnGroup group : groups) head += groupformat(layout, group);
  head += ")\n";
  for (const ResidualColumn* column : layout.of(ColumnGroup::OL)) {
    const std::string name = column->name + (layout.level == 3 ? " " : "");
    head += "if " + name + "=-99 then let " + name + "=.\n";
  }
  writeresult(file.out, head + "RUN\n");
}

}  // namespace kdr
