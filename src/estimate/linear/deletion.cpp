#include "estimate/linear/deletion.h"

#include <cstring>

namespace kdr {

void markdeletion(Model& model, const MdmData& mdm) {
  if (mdm.deletednow) return;
  for (int v = 1; v <= mdm.nvar1; ++v) {
    Deletion& mark = model.delete1[static_cast<std::size_t>(v) - 1];
    if (mark == Deletion::named) continue;
    bool used =
        v == model.wgtvar1 || v == model.autovknown || (model.outcome.counted && model.outcome.countvariable == v);
    for (int e = 0; e < model.neqsets; ++e) used = used || model.use1.row(e)[v] != Use::none;
    mark = used ? Deletion::ofmodel : Deletion::none;
  }
}

bool lacksvalue(const Model& model, const double* record) {
  bool missing = false;
  for (std::size_t v = 0; v < model.delete1.size(); ++v)
    missing = missing || (model.delete1[v] != Deletion::none && record[v] == missingcode);
  return missing;
}

void deleterecords(const Model& model, UnitBlock& unit) {
  const std::size_t width = model.delete1.size();
  for (int i = unit.nj - 1; i >= 0; --i) {
    double* record = unit.records.data() + static_cast<std::size_t>(i) * width;
    if (!lacksvalue(model, record)) continue;
    std::memmove(record, record + width, static_cast<std::size_t>(unit.nj - 1 - i) * width * sizeof(double));
    --unit.nj;
  }
}

}  // namespace kdr
