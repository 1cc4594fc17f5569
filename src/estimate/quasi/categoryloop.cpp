#include "estimate/quasi/categoryloop.h"

#include <utility>

#include "estimate/linear/runpass.h"
#include "estimate/quasi/categorydata.h"
#include "estimate/quasi/enginephase.h"
#include "estimate/quasi/macrocontrol.h"
#include "estimate/quasi/separation.h"

namespace kdr {

namespace {

PassPlan planof(const MacroState& state, int macro) {
  PassPlan plan;
  plan.kind = PassKind::categories;
  plan.macro = macro;
  plan.limit = state.analysis.control.numit;
  plan.stopval = state.analysis.control.stopval;
  plan.fixsigma2 = 1.0;
  if (state.creeps) plan.searching = Searching::always;
  if (macro > 1) plan.start = &state.previous;
  return plan;
}

Failure runcategories(const CategoryTable& table, ChainFit& fit) {
  MacroState& state = fit.state;
  Pass& pass = fit.pass;
  if (Failure failure = preparecategoricaldata(table, state, pass, planof(state, 1))) return failure;
  for (bool first = true;; first = false) {
    beginmacro(state);
    PassResults& results = state.unitspecific;
    results = {};
    if (Failure failure = runpass(pass, state.iterations, results)) return failure;
    tellobserver(state.analysis.observer.passstands, ChainPass{state, pass, results});
    if (Failure failure = lookforseparation(state)) return failure;
    if (macroend(state, results, first) != MacroEnd::goeson) return closephase(pass, state, results);
    Pass next;
    if (Failure failure = updatecategoricaldata(pass, state, next, planof(state, state.macro + 1)))
      return endseparated(state, results, failure) ? closephase(pass, state, results) : std::move(failure);
    pass = std::move(next);
  }
}

}  // namespace

Failure fitcategories(const CategoryTable& table, ChainFit& fit) {
  MacroState& state = fit.state;
  state.left = state.analysis.control.macroit;
  state.categories = table.value;
  if (Failure failure = checkoutcomes(state)) return failure;
  tellobserver(state.analysis.observer.separation, state.separation);
  Failure failure = runcategories(table, fit);
  return failure ? enginesalone(fit, std::move(failure)) : Failure{};
}

}  // namespace kdr
