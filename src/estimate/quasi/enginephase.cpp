#include "estimate/quasi/enginephase.h"

#include <utility>

#include "estimate/likelihood/engines.h"

namespace kdr {

Failure closephase(Pass& pass, MacroState& state, const PassResults& results) {
  const Observer& observer = state.analysis.observer;
  state.unitspecificgamma = pass.est.gammahat.copy();
  tellobserver(observer.phasecloses, ChainPass{state, pass, results});
  if (Failure failure = maximumlikelihood(pass, state, results)) return failure;
  tellobserver(observer.enginesover, ChainPass{state, pass, results});
  return {};
}

bool ofnumbers(const Failure& failure, const Control& control) {
  switch (failure.row) {
    case 11:
    case 12:
    case 13:
    case 15:
    case 16:
    case 18:
      return true;
    case ownwords:
      return !failure.reportwords.empty() && control.fixtau2 != FixTau::quit && control.fixtau3 != FixTau::quit;
    default:
      return false;
  }
}

Failure enginesalone(ChainFit& fit, Failure failure) {
  MacroState& state = fit.state;
  const Control& control = state.analysis.control;
  const bool wanted = (control.laplace || control.agqpoints != 0) && !control.agqfixed;
  if (!wanted || state.end != MacroEnd::goeson || state.separation.known() || !state.working.isopen() ||
      !ofnumbers(failure, control))
    return failure;
  state.end = MacroEnd::failed;
  state.unitspecific = {};
  state.unitspecific.macro = state.macro;
  tellobserver(state.analysis.observer.macroends,
               MacroEvent{state.end, state.macro, state.unitspecific, state.separation, &failure});
  fit.pass.est.sigma2 = 1.0;  // which the outcome implies
  if (Failure broken = maximumlikelihood(fit.pass, state, state.unitspecific)) return broken;
  return state.laplace6 || state.quadrature ? Failure{} : std::move(failure);
}

}  // namespace kdr
