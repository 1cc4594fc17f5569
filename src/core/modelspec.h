// The model as parsed: outcome, equations of the three levels, random flags, centering marks, lists.
//
// Indices: e runs over the equation sets, c over the level-1 coefficients of a set in order (the intercept first, if
// present), b over the level-2 coefficients of a set in order, s over the term slots of a coefficient, v over the
// variables of a level (0 is the level's intercept). Term slots are filled from slot 0 up with no gap; a free slot is
// `noslot` and ends the row. All tables are allocated by `allocatemodel`.
#pragma once

#include "core/constants.h"
#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

struct ModelSpec {
  IntTable use1;       // [e][v], ncol1: -1 the outcome, 1 a level-1 predictor (v 0: the intercept is in), 0 neither
  Array<int> center1;  // [v], ncol1: 0 none, 1 group mean, 2 grand mean
  IntTable fixed1;     // [e][c], ncol1: not 0: coefficient c has no level-2 random effect
  IntTable terms2;     // [e][c][s], ncol1 rows of ncol2: level-2 variable of term s; 0 is INTRCPT2
  IntTable nterms2;    // [e][c], ncol1: filled terms of the row
  IntTable extra2;     // [e][c][12]: level-2 variables listed for exploratory analysis, noslot in free slots
  IntTable nextra2;    // [e][c], ncol1
  Array<int> center2;  // [v], ncol2
  IntTable fixed2;     // [e][b], maxbeta: not 0: coefficient b has no level-3 random effect
  IntTable terms3;     // [e][b][s], maxbeta rows of ncol3: level-3 variable of term s; 0 is INTRCPT3
  IntTable nterms3;    // [e][b], maxbeta
  IntTable extra3;     // [e][b][12]: level-3 variables listed for exploratory analysis
  IntTable nextra3;    // [e][b], maxbeta
  Array<int> center3;  // [v], ncol3: 0 or 2

  Array<int> delete1;  // [v - 1], nvar1: 2 named by LEVEL1DELETION:, 1 of the model, 0 not looked at. A missing value
                       // in a variable with an entry not 0 removes the level-1 record at analysis time

  // Variables that the residual files are to carry: marks by variable (1 wanted) ...
  Array<int> wanted1vars1, wanted1vars2, wanted1vars3;  // widths ncol1, ncol2, ncol3
  Array<int> wanted2vars2, wanted2vars3;                // widths ncol2, ncol3
  Array<int> wanted3vars3;                              // width ncol3
  // ... and the lists of `n...` variable indices that `compactlists` makes of them.
  Array<int> res1vars1, res1vars2, res1vars3;
  Array<int> res2vars2, res2vars3;
  Array<int> res3vars3;
  int nres1vars1 = 0, nres1vars2 = 0, nres1vars3 = 0;
  int nres2vars2 = 0, nres2vars3 = 0;
  int nres3vars3 = 0;

  // Constraints among the fixed effects.
  Array<int> constraints;         // [full ngamma]: group of each gamma, 0 free
  Array<int> removed;             // [full ngamma]: 1 for every member of a group but the first
  int nconstrained = 0;           // gammas removed by the constraints
  Array<double> constrainmatrix;  // full ngamma squared: row i makes full gamma i from the reduced gammas

  // Hypotheses about the fixed effects.
  bool nhypotheses = false;      // a hypothesis is given
  Array<short> hypothesisrows;   // [128]: contrast rows of hypothesis n + 1
  Array<double> contrasts;       // rows of ngamma values, in order of arrival
  Array<double> uncutcontrasts;  // the rows as they stood before the constraints, for the command file
};

}  // namespace kdr
