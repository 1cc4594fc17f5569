#include "estimate/quasi/macrocontrol.h"

#include "estimate/inference/settled.h"
#include "estimate/quasi/macrotest.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

Parameters parametersof(const Coefficients& coef, const Estimates& est) {
  return {coef.ntaupi, coef.ntaubeta, coef.ngamma, est.taupi.copy(), est.taubeta.copy(), est.gammahat.copy()};
}

// The allowance has run out: true to close the phase all the same.
bool closeatlimit(MacroState& state) {
  constexpr int farlimit = 10000;
  const Observer& observer = state.analysis.observer;
  const AtLimit limit = state.analysis.control.numitcontinue;
  if (limit != AtLimit::goon && !(limit == AtLimit::ask && observer.goon && observer.goon())) return true;
  tellobserver(observer.macrolimitraised, farlimit);
  state.left = farlimit;
  return false;
}

// Whether the loop creeps: micro iterations that stop early move the variance components so little that the macro test
// takes it for standing still, or that it is never met. An element near 0 that changes by a share of itself for ever
// does not meet it either.
bool creeps(const MacroState& state, const PassResults& results, bool converged) {
  constexpr int patience = 20;
  return converged ? results.errors.stepleft >= settled : state.macro >= patience;
}

}  // namespace

void beginmacro(MacroState& state) {
  ++state.macro;
  tellobserver(state.analysis.observer.macrobegins, state.macro);
}

MacroEnd macroend(MacroState& state, const PassResults& results, bool first) {
  const Coefficients& coef = state.analysis.model.coef;
  const Observer& observer = state.analysis.observer;
  bool converged = !first && macrotest(parametersof(coef, results.est), parametersof(coef, state.previous),
                                       state.analysis.control.stopmacro);
  if (!first && !state.iterations.searching && creeps(state, results, converged)) {
    tellobserver(observer.macrocreeps, state.macro);
    state.iterations.searching = true;
    converged = false;
  }
  MacroEnd end = MacroEnd::goeson;
  if (converged) {
    end = MacroEnd::converged;
  } else if (results.ending == Ending::keyboard) {
    end = MacroEnd::keyboard;
  } else if (state.left <= 1 && closeatlimit(state)) {
    end = MacroEnd::limit;
  }
  tellobserver(observer.macroends, MacroEvent{end, state.macro, results});
  if (end == MacroEnd::goeson) --state.left;
  return end;
}

}  // namespace kdr
