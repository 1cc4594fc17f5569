#include "driver/runrecord.h"

namespace kdr {

RunRecord run;

void startrun() {
  const std::time_t now = std::time(nullptr);
  localtime_r(&now, &run.id.started);
}

void allocatemodel() {
  const MdmData& mdm = run.mdm;
  allocateequations(run.model, mdm.nvar1, mdm.ncol1, mdm.ncol2, mdm.ncol3);
  const auto width1 = static_cast<std::size_t>(mdm.ncol1);
  const auto width2 = static_cast<std::size_t>(mdm.ncol2);
  const auto width3 = static_cast<std::size_t>(mdm.ncol3);
  run.out.wanted1vars1.reset(width1);
  run.out.wanted1vars2.reset(width2);
  run.out.wanted1vars3.reset(width3);
  run.out.wanted2vars2.reset(width2);
  run.out.wanted2vars3.reset(width3);
  run.out.wanted3vars3.reset(width3);
}

}  // namespace kdr
