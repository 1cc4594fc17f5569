#include "estimate/quasi/categoryloop.h"

#include <utility>

#include "estimate/linear/runpass.h"
#include "estimate/quasi/categorydata.h"
#include "estimate/quasi/macrocontrol.h"
#include "estimate/quasi/separation.h"

namespace kdr {

Failure fitcategories(const CategoryTable& table, ChainFit& fit) {
  MacroState& state = fit.state;
  Pass& pass = fit.pass;
  const Observer& observer = state.analysis.observer;
  state.left = state.analysis.control.macroit;
  state.categories = table.value;
  if (Failure failure = checkoutcomes(state)) return failure;
  tellobserver(observer.separation, state.separation);
  if (Failure failure = preparecategoricaldata(table, state, pass, planof(state, PassKind::categories, 1)))
    return failure;
  for (bool first = true;; first = false) {
    beginmacro(state);
    PassResults& results = state.unitspecific;
    results = {};
    if (Failure failure = runpass(pass, state.iterations, results)) return failure;
    tellobserver(observer.passstands, ChainPass{state, pass, results});
    if (Failure failure = lookforseparation(state)) return failure;
    const auto close = [&] {
      state.unitspecificgamma = results.est.gammahat.copy();
      tellobserver(observer.phasecloses, ChainPass{state, pass, results});
      return Failure{};
    };
    if (macroend(state, results, first) != MacroEnd::goeson) return close();
    Pass next;
    if (Failure failure =
            updatecategoricaldata(pass, state, next, planof(state, PassKind::categories, state.macro + 1)))
      return endseparated(state, results, failure) ? close() : std::move(failure);
    pass = std::move(next);
  }
}

}  // namespace kdr
