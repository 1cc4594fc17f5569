#include "estimate/linear/centering.h"

#include "kernel/sizes.h"

namespace kdr {

void centerlevel3(const Model& model, MdmData& mdm) {
  const int width = mdm.nvar3;
  for (int v = 1; v <= width; ++v) {
    if (model.center3[at(v)] == Centering::none) continue;
    if (mdm.observed3.empty()) mdm.observed3 = mdm.level3.copy();
    const double mean = mdm.mean3[at(v) - 1];
    for (int k = 0; k < mdm.nunits3; ++k) mdm.level3[at(k) * at(width) + at(v) - 1] -= mean;
  }
}

void centeraround(Centering mark, double grandmean, double* values, std::size_t n) {
  if (mark == Centering::none) return;
  for (std::size_t i = 0; i < n; ++i) values[i] -= grandmean;
}

}  // namespace kdr
