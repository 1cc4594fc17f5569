// The model as parsed: outcome, equations of the three levels, random flags, centering marks, lists.
//
// Indices: e runs over the equation sets, c over the level-1 coefficients of a set in order (the intercept first, if
// present), b over the level-2 coefficients of a set in order, s over the term slots of a coefficient, v over the
// variables of a level (0 is the level's intercept). Term slots are filled from slot 0 up with no gap; a free slot is
// `noslot` and ends the row. All tables are allocated by `allocatemodel`.
#pragma once

#include <optional>

#include "core/constants.h"
#include "core/names.h"
#include "core/outcome.h"
#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

// What is taken off a variable.
enum class Centering { none, groupmean, grandmean };

// The part of a level-1 variable in a set of equations; that of variable 0 tells whether the intercept is in.
enum class Use { none, outcome, predictor };

// Whether a missing value in a level-1 variable removes its record at analysis time.
enum class Deletion { none, ofmodel, named };  // named: by LEVEL1DELETION:

// Numbers and labels of the coefficients, counted once the model is complete.
struct Coefficients {
  int npi = 0;          // level-1 coefficients of all sets, thresholds of an ordinal model among them
  int nbeta = 0;        // level-2 coefficients of all sets
  int ntaupi = 0;       // those random at level 2: the order of taupi
  int ntaubeta = 0;     // those random at level 3: the order of taubeta
  int ngamma = 0;       // fixed effects of all sets. Applying the constraints takes the constrained ones off
  Array<Name> pinames;  // the level-1 variable of each row of taupi
  Array<Name> betanames1, betanames2;                  // the level-1 and the level-2 variable of each row of taubeta
  Array<Label> gammanames1, gammanames2, gammanames3;  // row labels of the fixed effects of the reduced model
  Array<Name> gammasubs;            // the digits of each fixed effect's subscript, full ngamma entries
  Array<int> pisubs;                // subscript of each random level-1 coefficient
  Array<int> betasubs1, betasubs2;  // the two subscripts of each random level-2 coefficient

  [[nodiscard]] int order(Tau which) const { return ofthe(which, ntaupi, ntaubeta); }
};

// What of a tau is not free.
struct TauHeld {
  bool diagonal;               // nothing but the variances
  const Array<double>* fixed;  // square; absent where it is free. Null: no element is held
  const Array<int>* equal;     // packed, as contau2. Null: no elements are equal
};

// What is not free in the variances. The field of a keyword bears the keyword's name.
struct Restrictions {
  std::optional<double> fixsigma2;              // FIXSIGMA2:. Without one sigma^2 is estimated
  bool diagtaupi = false, diagtaubeta = false;  // DIAGONALIZETAUPI:, DIAGONALIZETAUBETA:
  bool haveesttau2 = false, haveesttau3 = false;
  Array<double> esttau2, esttau3;  // ESTTAU2:, ESTTAU3:. Square, of the order of the tau; absent is free
  bool havecontau2 = false, havecontau3 = false;
  Array<int> contau2, contau3;  // CONTAU2:, CONTAU3:. Packed lower triangle: 0 free; the first member of a group has
                                // its own 1-based place, the others minus that

  [[nodiscard]] TauHeld of(Tau which) const {
    if (which == Tau::pi) return {diagtaupi, haveesttau2 ? &esttau2 : nullptr, havecontau2 ? &contau2 : nullptr};
    return {diagtaubeta, haveesttau3 ? &esttau3 : nullptr, havecontau3 ? &contau3 : nullptr};
  }
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
  bool rawweights = false;                    // WEIGHTSCALE:NONE: weights as they stand, not brought to a mean of 1
  int autovknown = 0;                         // VARIANCEKNOWN:. Level-1 index of the known variance, 0 none

  EquationTable<Use> use1;   // [e][v], ncol1
  Array<Centering> center1;  // [v], ncol1
  IntTable fixed1;           // [e][c], ncol1: not 0: coefficient c has no level-2 random effect
  IntTable terms2;           // [e][c][s], ncol1 rows of ncol2: level-2 variable of term s; 0 is INTRCPT2
  IntTable nterms2;          // [e][c], ncol1: filled terms of the row
  IntTable extra2;           // [e][c][12]: level-2 variables listed for exploratory analysis, noslot in free slots
  IntTable nextra2;          // [e][c], ncol1
  Array<Centering> center2;  // [v], ncol2
  IntTable fixed2;           // [e][b], maxbeta: not 0: coefficient b has no level-3 random effect
  IntTable terms3;           // [e][b][s], maxbeta rows of ncol3: level-3 variable of term s; 0 is INTRCPT3
  IntTable nterms3;          // [e][b], maxbeta
  IntTable extra3;           // [e][b][12]: level-3 variables listed for exploratory analysis
  IntTable nextra3;          // [e][b], maxbeta
  Array<Centering> center3;  // [v], ncol3: none or grandmean

  Array<Deletion> delete1;  // [v - 1], nvar1

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

// Allocates the equation tables for the `neqsets` sets of the model, all term slots noslot, everything else zero, and
// forgets constraints and hypotheses. ncol1 is nvar1 + 1, with thresholds that many more, ncol2 and ncol3 likewise.
void allocateequations(Model& model, int nvar1, int ncol1, int ncol2, int ncol3);

// Makes level-2 coefficient b of set e a fixed effect of its own, as in data of two levels.
void fixatlevel3(Model& model, int e, int b);

}  // namespace kdr
