#include "estimate/linear/deletion.h"

#include <cstring>

#include "driver/runrecord.h"

namespace kdr {

bool lacksvalue(const double* record) {
  bool missing = false;
  for (std::size_t v = 0; v < static_cast<std::size_t>(run.mdm.nvar1); ++v)
    missing = missing || (run.model.delete1[v] != Deletion::none && record[v] == missingcode);
  return missing;
}

void deleterecords(UnitBlock& unit) {
  const auto width = static_cast<std::size_t>(run.mdm.nvar1);
  for (int i = unit.nj - 1; i >= 0; --i) {
    double* record = unit.records.data() + static_cast<std::size_t>(i) * width;
    if (!lacksvalue(record)) continue;
    std::memmove(record, record + width, static_cast<std::size_t>(unit.nj - 1 - i) * width * sizeof(double));
    --unit.nj;
  }
}

}  // namespace kdr
