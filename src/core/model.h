// The model as parsed: outcome, equations of the three levels, random flags, centering marks, lists.
//
// Indices: e runs over the equation sets, c over the level-1 coefficients of a set in order (the intercept first, if
// present), b over the level-2 coefficients of a set in order, s over the term slots of a coefficient, v over the
// variables of a level (0 is the level's intercept). Term slots are filled from slot 0 up with no gap; a free slot is
// `noslot` and ends the row. All tables are allocated by `allocatemodel`.
#pragma once

#include "core/constants.h"
#include "core/names.h"
#include "core/outcome.h"
#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

// Numbers and labels of the coefficients, counted once the model is complete.
struct Coefficients {
  int npi = 0;          // level-1 coefficients of all sets, thresholds of an ordinal model among them
  int nbeta = 0;        // level-2 coefficients of all sets
  int ntaupi = 0;       // those random at level 2: the order of taupi
  int ntaubeta = 0;     // those random at level 3: the order of taubeta
  int ngamma = 0;       // fixed effects of all sets; without the constrained ones once the constraints are applied
  Array<Name> pinames;  // the level-1 variable of each row of taupi
  Array<Name> betanames1, betanames2;                  // the level-1 and the level-2 variable of each row of taubeta
  Array<Label> gammanames1, gammanames2, gammanames3;  // row labels of the fixed effects of the reduced model
  Array<Name> gammasubs;            // the digits of each fixed effect's subscript, full ngamma entries
  Array<int> pisubs;                // subscript of each random level-1 coefficient
  Array<int> betasubs1, betasubs2;  // the two subscripts of each random level-2 coefficient
};

// What is not free in the variances. The field of a keyword bears the keyword's name.
struct Restrictions {
  double fixsigma2 = 0.0;                       // FIXSIGMA2:. 0.0: sigma^2 is estimated
  bool diagtaupi = false, diagtaubeta = false;  // DIAGONALIZETAUPI:, DIAGONALIZETAUBETA:
  bool haveesttau2 = false, haveesttau3 = false;
  Array<double> esttau2, esttau3;  // ESTTAU2:, ESTTAU3:. Square, of the order of the tau; missingcode is free
  bool havecontau2 = false, havecontau3 = false;
  Array<int> contau2, contau3;  // CONTAU2:, CONTAU3:. Packed lower triangle: 0 free; the first member of a group has
                                // its own 1-based place, the others minus that
};

struct Model {
  Outcome outcome;
  int outvar = 0;             // level-1 index of the outcome
  Name outname{};             // the outcome as reported
  Array<Name> categorylabel;  // a label for each category of a multinomial or ordinal outcome
  int neqsets = 1;            // sets of equations: categories - 1 for a multinomial outcome
  bool nointercept1 = false;  // the level-1 equation has no INTRCPT1: level-1 subscripts start at 1

  int wgtvar1 = 0, wgtvar2 = 0, wgtvar3 = 0;  // LEVEL1WEIGHT: ...: index of the weight variable, 0 none
  bool weighted = false;                      // a design weight is in force
  int autovknown = 0;                         // VARIANCEKNOWN:. Level-1 index of the known variance, 0 none

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

  Coefficients coef;
  Restrictions restrictions;
};

}  // namespace kdr
