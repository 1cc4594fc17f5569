// What an estimation tells while it runs, and what it asks. Every member may be empty; a question without an answer
// takes the way that its comment names. The estimation prints nothing itself.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "core/estimates.h"
#include "core/tables.h"
#include "kernel/array.h"

namespace kdr {

enum class PassKind;
struct PassResults;
struct RecordsHash;
struct LeastSquaresResults;
struct HeterogeneousResults;
struct ChainPass;
struct MacroEvent;
struct Separation;
enum class Engine;
struct EngineEvent;
struct EngineStage;

// An iteration of a stage is over.
struct IterationEvent {
  PassKind kind;
  int macro;      // macro iteration, from 1; 0 in a linear run
  int iteration;  // from 1
  double loglik;
  bool atlimit, last;  // the stage ends with it
};

// A search for the maximum has moved the estimates.
struct SearchEvent {
  PassKind kind;
  int macro, iteration;
  double gain;  // of the log-likelihood
};

// A part of the starting values stands.
struct StartingEvent {
  enum class Part { taupi, repairedtaupi, taubeta, repairedtaubeta };
  Part part;
  bool frommoments;    // not given from outside
  bool shared;         // shares of the residual variance, as no unit has records for a fit of its own
  int records, units;  // level-1 and level-2: those that entered the moments
  const Estimates& est;
};

// A tau that nothing can be done with.
struct BadTau {
  enum class Why { unitcorrelation, unrepairable };
  Why why;
  Tau which;
  int n;
  const double* tau;
};

// A starting tau that is no covariance matrix, and what may be changed by hand.
struct TauRepair {
  Tau which;
  int n;
  double* tau;                 // n squared
  const Array<double>* fixed;  // absent in free elements; null: none is fixed
  const Array<int>* equal;     // packed, not 0 in the elements of a group; null: none
  Estimates& est;              // gammahat and sigma2 may be changed with it
};
enum class RepairChoice { clear = 1, byhand = 2, automatic = 3, quit = 4 };

struct Observer {
  // Progress.
  std::function<void(PassKind kind, int records)> dataread;  // the first data pass of a fit is over
  std::function<void(const RecordsHash& hash)> recordsread;  // before it: which records these were
  std::function<void(const LeastSquaresResults& results)> leastsquares;
  std::function<void(const StartingEvent& event)> starting;
  std::function<void()> iterationsbegin;
  std::function<void()> stagebegins, stageends;
  std::function<void(const IterationEvent& event)> iteration;
  std::function<void(const PassResults& results)> iterationresults;  // of a stage that goes on, with DEBUG
  std::function<void(const SearchEvent& event)> searched;
  std::function<void(const HeterogeneousResults& results)> heterogeneous;
  std::function<void(const BadTau& bad)> badtau;
  // A fit with another outcome, as a chain of passes (estimate/quasi).
  std::function<void(const Separation& found)> separation;  // what the data show of it, before the first pass
  std::function<void(int macro)> macrobegins;
  std::function<void(const ChainPass& pass)> passstands;   // a pass is over
  std::function<void(int macro)> macrocreeps;              // from here on each pass searches for its maximum
  std::function<void(const MacroEvent& event)> macroends;  // whether the macro iterations go on behind a pass
  std::function<void(const ChainPass& pass)> phasecloses;  // the unit-specific phase is over, but for its engines
  std::function<void(const ChainPass& pass)> enginesover;  // told when no engine is asked for, too
  std::function<void(Engine engine, const EngineEvent& event)> engine;
  std::function<void(const EngineStage& stage)> enginestands;  // an engine has ended

  // Questions.
  std::function<bool()> goon;                                         // at the limit of the iterations; empty: no
  std::function<void(int limit)> limitraised;                         // and the new limit
  std::function<void(int limit)> macrolimitraised;                    // and that of the macro iterations
  std::function<void(const TauRepair& repair)> unusabletau;           // the first question about it follows
  std::function<RepairChoice(const TauRepair& repair)> chooserepair;  // empty: automatic
  std::function<void(const TauRepair& repair)> changetau;             // RepairChoice::byhand
  std::function<void(const TauRepair& repair)> changeothers;          // behind a tau that was made usable by hand

  // The end. `poll` is asked at safe points everywhere: true gives the fit up, without results. `interrupted` is asked
  // between steps (with a `confirmstop` within evaluations too), then `confirmstop`: true ends with the results so far.
  std::function<bool()> poll;
  std::function<bool()> interrupted;
  std::function<bool()> confirmstop;  // empty: an interrupt needs no confirmation

  [[nodiscard]] bool givesup() const { return poll && poll(); }
  [[nodiscard]] bool wantsstop() const { return interrupted && interrupted(); }
  [[nodiscard]] bool stops() const { return wantsstop() && (!confirmstop || confirmstop()); }
};

// Calls a member with what it is told, if there is one.
template <class Member, class... Arguments>
void tellobserver(const Member& member, Arguments&&... arguments) {
  if (member) member(std::forward<Arguments>(arguments)...);
}

}  // namespace kdr
