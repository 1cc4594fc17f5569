#include <cstring>

#include "driver/runrecord.h"
#include "report/residual/forms.h"
#include "report/residual/numbers.h"

namespace kdr {

namespace {

// A text ID as it stands in the MDM file, in quotation marks when it would not be one field without them.
void appendid(ResultFile& out, const ResidualFile& file, int which, const Id& id) {
  if (!file.columns.textid[which]) {
    appendnumber(out, id.number, 6);
    return writeresult(out, ",");
  }
  const std::string text = file.columns.idtext(which, id);
  if (text.find_first_of(",\"\n\r") == std::string::npos) {
    writeresult(out, text);
  } else {
    writeresult(out, "\"");
    for (const char& c : text) writeresult(out, c == '"' ? std::string_view("\"\"") : std::string_view(&c, 1));
    writeresult(out, "\"");
  }
  writeresult(out, ",");
}

}  // namespace

void writeheadfree(ResidualFile& file, int) {
  const ResidualColumns& layout = file.columns;
  std::string head;
  layout.eachid([&](int which) { head += std::string(ResidualColumns::idname(which)) + ","; });
  if (layout.hascount()) head += std::string(layout.countname()) + ",";
  for (std::size_t i = 0; i < layout.columns.size(); ++i) {
    const ResidualColumn& column = layout.columns[i];
    const bool lastFV = column.group == ColumnGroup::FV && i + 1 < layout.columns.size() &&
                        layout.columns[i + 1].group != ColumnGroup::FV;
    head += (column.group == ColumnGroup::chosen ? rightjustified(column.name, 8) : column.name) + ",";
    if (lastFV) head += "\n";
  }
  head.back() = '\n';
  writeresult(file.out, head);
}

void writerowfree(ResidualFile& file, const ResidualRow& row) {
  ResultFile& out = file.out;
  const ResidualColumns& layout = file.columns;
  layout.eachid([&](int which) { appendid(out, file, which, row.id(which)); });
  if (layout.hascount()) {
    appendcount(out, row.count, 0);
    writeresult(out, ",");
  }
  const double missing = missingmark(ResidualForm::freeformat);
  for (std::size_t i = 0; i < layout.columns.size(); ++i) {
    const ColumnGroup group = layout.columns[i].group;
    if (row.values[i] == missing && group != ColumnGroup::fit && group != ColumnGroup::chosen) {
      writeresult(out, ".");
    } else {
      appendnumber(out, row.values[i], group == ColumnGroup::record ? 0 : 6);
    }
    *roomin(out, 1) = i + 1 < layout.columns.size() ? ',' : '\n';
    wrote(out, 1);
  }
}

}  // namespace kdr
