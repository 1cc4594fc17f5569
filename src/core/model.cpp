#include "core/model.h"

namespace kdr {

void allocateequations(Model& model, int nvar1, int ncol1, int ncol2, int ncol3) {
  const int sets = model.neqsets, maxbeta = ncol2 * (ncol1 - 1);
  model.use1.reset(sets, 1, ncol1, Use::none);
  model.fixed1.reset(sets, 1, ncol1, 0);
  model.terms2.reset(sets, ncol1, ncol2, noslot);
  model.nterms2.reset(sets, 1, ncol1, 0);
  model.extra2.reset(sets, ncol1, maxextra, noslot);
  model.nextra2.reset(sets, 1, ncol1, 0);
  model.fixed2.reset(sets, 1, maxbeta, 0);
  model.terms3.reset(sets, maxbeta, ncol3, noslot);
  model.nterms3.reset(sets, 1, maxbeta, 0);
  model.extra3.reset(sets, maxbeta, maxextra, noslot);
  model.nextra3.reset(sets, 1, maxbeta, 0);

  const auto width1 = static_cast<std::size_t>(ncol1);
  const auto width2 = static_cast<std::size_t>(ncol2);
  const auto width3 = static_cast<std::size_t>(ncol3);
  model.center1.reset(width1);
  model.center2.reset(width2);
  model.center3.reset(width3);
  model.delete1.reset(static_cast<std::size_t>(nvar1));
  model.hypothesisrows.reset(maxhypotheses);
  model.nhypotheses = false;
  model.contrasts = {};
  model.uncutcontrasts = {};
  model.nconstrained = 0;
  model.constraints = {};
  model.removed = {};
  model.constrainmatrix = {};
}

void fixatlevel3(Model& model, int e, int b) {
  model.terms3.row(e, b)[0] = 0;
  model.fixed2.row(e)[b] = 1;
}

}  // namespace kdr
