// Where the iterations of a pass stand.
#pragma once

#include <vector>

#include "estimate/linear/aitken.h"
#include "estimate/linear/fisher.h"
#include "estimate/linear/marginalderivatives.h"
#include "estimate/linear/pass.h"
#include "kernel/array.h"

namespace kdr {

// The heterogeneous stage has a taupi for every level-3 unit.
enum class Stage { heterogeneous, ordinary };

// The maximum of the restricted likelihood.
struct MarginalFit {
  MarginalSums sums;         // empty until one is asked for
  Estimates est;             // taus may be singular
  MarginalValue value;       // there
  std::vector<int> lacking;  // how much each tau lacks of its full rank
  double decrement = 0.0;    // twice the gain that is left to a step
};

// State of the loop that outlives a stage.
struct IterationState {
  Stage stage = Stage::ordinary;
  int limit = 0;                          // iterations of the stage
  int iteration = 0;                      // the last one
  int fisherfailures = 0;                 // failed accelerated steps of the pass; from 4 on Aitken steps are taken
  bool scoringover = false;               // the log-likelihood fell: Aitken steps from here on
  Likelihood likelihood{absent, absent};  // at the end of the last two iterations
  FisherWork fisher;
  TauHistory history;
  double s1 = 0.0, s2 = 0.0;   // sigma2 one and two iterations back
  UnitTable<double> hettaupi;  // a taupi per level-3 unit, heterogeneous stage only
  bool stepped = false;        // a Fisher step lies between the last log-likelihood and the next
  bool confirming = false;     // the rule was met at an accelerated step: the next iteration is a plain one
  bool converged = false, atlimit = false, keyboardstop = false;  // why the stage ended
  bool attop = false;  // at the edge a search in this iteration found nothing higher: the rule need not be met
  bool lost = false;   // the search at the stop found no maximum
  Failure failure;     // of the streams of a search
  MarginalFit marginal;
  int nextsearch = 0;  // the iteration that begins with a search for a maximum at the edge
  Ending ending = Ending::converged;

  [[nodiscard]] bool stopped() const { return converged || atlimit || keyboardstop; }
};

}  // namespace kdr
