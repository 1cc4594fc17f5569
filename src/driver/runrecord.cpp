#include "driver/runrecord.h"

namespace kdr {

RunRecord run;

void startrun() {
  const std::time_t now = std::time(nullptr);
  localtime_r(&now, &run.id.started);
}

void allocatemodel() {
  const MdmData& mdm = run.mdm;
  const int sets = run.model.neqsets;
  Model& model = run.model;
  model.use1.reset(sets, 1, mdm.ncol1, Use::none);
  model.fixed1.reset(sets, 1, mdm.ncol1, 0);
  model.terms2.reset(sets, mdm.ncol1, mdm.ncol2, noslot);
  model.nterms2.reset(sets, 1, mdm.ncol1, 0);
  model.extra2.reset(sets, mdm.ncol1, maxextra, noslot);
  model.nextra2.reset(sets, 1, mdm.ncol1, 0);
  model.fixed2.reset(sets, 1, mdm.maxbeta, 0);
  model.terms3.reset(sets, mdm.maxbeta, mdm.ncol3, noslot);
  model.nterms3.reset(sets, 1, mdm.maxbeta, 0);
  model.extra3.reset(sets, mdm.maxbeta, maxextra, noslot);
  model.nextra3.reset(sets, 1, mdm.maxbeta, 0);

  const auto width1 = static_cast<std::size_t>(mdm.ncol1);
  const auto width2 = static_cast<std::size_t>(mdm.ncol2);
  const auto width3 = static_cast<std::size_t>(mdm.ncol3);
  model.center1.reset(width1);
  model.center2.reset(width2);
  model.center3.reset(width3);
  model.delete1.reset(static_cast<std::size_t>(mdm.nvar1));
  run.out.wanted1vars1.reset(width1);
  run.out.wanted1vars2.reset(width2);
  run.out.wanted1vars3.reset(width3);
  run.out.wanted2vars2.reset(width2);
  run.out.wanted2vars3.reset(width3);
  run.out.wanted3vars3.reset(width3);
  model.hypothesisrows.reset(maxhypotheses);
  model.nhypotheses = false;
  model.contrasts = {};
  model.uncutcontrasts = {};
  model.nconstrained = 0;
  model.constraints = {};
  model.removed = {};
  model.constrainmatrix = {};
}

}  // namespace kdr
