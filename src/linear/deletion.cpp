#include "linear/deletion.h"

#include <cstring>

#include "driver/runrecord.h"

namespace kdr {

void deleterecords(UnitBlock& unit) {
  const auto width = static_cast<std::size_t>(run.mdm.nvar1);
  for (int i = unit.nj - 1; i >= 0; --i) {
    double* record = unit.records.data() + static_cast<std::size_t>(i) * width;
    bool missing = false;
    for (std::size_t v = 0; v < width; ++v) missing = missing || (run.model.delete1[v] && record[v] == missingcode);
    if (!missing) continue;
    std::memmove(record, record + width, static_cast<std::size_t>(unit.nj - 1 - i) * width * sizeof(double));
    --unit.nj;
  }
}

}  // namespace kdr
