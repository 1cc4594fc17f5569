#include "core/settling.h"

#include <algorithm>

namespace kdr {

const char* variancekeeper(const Model& model, const Control& control) {
  if (control.laplace) return "Laplace-6";
  if (model.outcome.categorical()) return "categories";
  if (control.agqpoints != 0) return "adaptive quadrature";
  return model.autovknown != 0 ? "known variances" : nullptr;
}

bool countsinequations(const Model& model) {
  const Outcome& outcome = model.outcome;
  if (!outcome.counted || !outcome.countvariable) return false;
  for (int set = 0; set < model.neqsets; ++set)
    if (model.use1.row(set)[*outcome.countvariable] != Use::none) return true;
  return false;
}

void settlecontrol(const Model& model, bool stopgiven, Control& control) {
  const Outcome& outcome = model.outcome;
  if (outcome.single()) control.popavit = std::max(control.popavit, 1);
  if (!outcome.linear() && control.agqpoints == 0 && !stopgiven) control.stopval = 1.0e-5;
  if (control.restricted) {
    const Control usual;
    control.fishertype = usual.fishertype;
    control.accel = usual.accel;
  }
  if (control.hetit != 0) control.fishertype = FisherType::none;
  if (control.fishertype == FisherType::none) {
    if (control.accel <= 2) control.accel = 3;
  } else if (control.accel < 1) {
    control.accel = 5;
  }
}

}  // namespace kdr
