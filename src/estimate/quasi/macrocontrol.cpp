#include "estimate/quasi/macrocontrol.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/formatted.h"
#include "estimate/quasi/macrotest.h"
#include "estimate/quasi/separation.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The standard errors of the estimates of a pass; 0 where there is none.
Parameters errorsof(const Coefficients& coef, const PassResults& results) {
  const auto q = square(coef.ntaupi), r = square(coef.ntaubeta);
  Parameters errors{coef.ntaupi,      coef.ntaubeta,    coef.ngamma,
                    Array<double>(q), Array<double>(r), Array<double>(at(coef.ngamma))};
  const auto take = [](const Array<double>& from, Array<double>& to) {
    for (std::size_t i = 0; i < to.size() && i < from.size(); ++i)
      if (std::isfinite(from[i])) to[i] = std::max(from[i], 0.0);
  };
  if (results.errors.known) {
    take(results.errors.taupi, errors.taupi);
    take(results.errors.taubeta, errors.taubeta);
  }
  const std::size_t g = errors.gamma.size();
  if (results.covariance.size() == g * g)
    for (std::size_t i = 0; i < g; ++i) errors.gamma[i] = std::sqrt(std::max(results.covariance[i * (g + 1)], 0.0));
  return errors;
}

// Whether the macro test is met, and the estimates have not far to go. Changes that shrink by a factor f from pass to
// pass leave a way of the last change times f / (1 - f). Searches find a maximum at the edge no better than to `still`,
// and what moves less behind them is at rest.
bool standstill(MacroState& state, const PassResults& results) {
  constexpr double far = 0.01, still = 1.0e-5;  // standard errors
  const Coefficients& coef = state.analysis.model.coef;
  const Parameters now = parametersof(coef.ntaupi, coef.ntaubeta, coef.ngamma, results.est),
                   previous = parametersof(coef.ntaupi, coef.ntaubeta, coef.ngamma, state.previous),
                   errors = errorsof(coef, results);
  const double change = largestchange(now, previous, errors);
  const double factor = state.lastchange > 0.0 ? std::min(change / state.lastchange, 0.999) : 0.0;
  state.lastchange = change;
  const bool rests = macrotest(now, previous, errors, state.analysis.control.stopmacro) ||
                     (state.creeps && results.errors.stepleft < 0.0 && change <= still);
  return rests && change * factor <= far * (1.0 - factor);
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
// takes it for standing still, or that it is never met. At the edge of the covariance matrices a scoring step tells
// nothing of what is left: only a search does. So does a pass whose many micro iterations found no end.
bool creeps(const MacroState& state, const PassResults& results, bool converged) {
  constexpr int patience = 20, longpass = 200, early = 4;  // the first working data may lead far off
  constexpr double near = 0.01;                            // standard errors
  if (state.macro > early && results.ending == Ending::limit && results.iteration >= longpass) return true;
  const double left = results.errors.stepleft;
  return converged ? left >= near || left < 0.0 : state.macro >= patience;
}

}  // namespace

PassPlan planof(const MacroState& state, PassKind kind, int macro) {
  const Analysis& analysis = state.analysis;
  PassPlan plan;
  plan.kind = kind;
  plan.macro = macro;
  plan.limit = analysis.control.numit;
  plan.stopval = analysis.control.stopval;
  plan.fixsigma2 = kind == PassKind::categories ? 1.0 : analysis.model.restrictions.fixsigma2.value_or(0.0);
  plan.robust = kind != PassKind::identity;
  plan.tausstand = kind == PassKind::populationaverage;
  if (state.creeps && !plan.tausstand) plan.searching = Searching::always;
  if (macro > 1) plan.start = &state.previous;
  plan.freshgamma = kind == PassKind::pql && macro == 2;
  return plan;
}

void beginmacro(MacroState& state) {
  ++state.macro;
  tellobserver(state.analysis.observer.macrobegins, state.macro);
}

MacroEnd macroend(MacroState& state, const PassResults& results, bool first) {
  const Observer& observer = state.analysis.observer;
  bool converged = !first && standstill(state, results) && !state.shortened;
  if (!first && !state.creeps && creeps(state, results, converged)) {
    tellobserver(observer.macrocreeps, state.macro);
    state.creeps = true;
    converged = false;
  }
  MacroEnd end = MacroEnd::goeson;
  if (state.separation.known() && state.saturated > 0) {
    end = MacroEnd::separated;
  } else if (converged) {
    end = results.ending == Ending::lost ? MacroEnd::lost : MacroEnd::converged;
  } else if (results.ending == Ending::keyboard) {
    end = MacroEnd::keyboard;
  } else if (state.left <= 1 && closeatlimit(state)) {
    end = MacroEnd::limit;
  }
  tellobserver(observer.macroends, MacroEvent{end, state.macro, results, state.separation});
  state.end = end;
  if (end == MacroEnd::goeson) --state.left;
  return end;
}

std::string failedwords(const MacroEvent& event) {
  const Failure& failure = *event.failure;
  // What the console says beside a row of the table, the row says, too.
  const Failure alone = failed(failure.row, failure.argument);
  std::string why = failure.row == ownwords        ? sentenceof(failure)
                    : !failure.reportwords.empty() ? failure.reportwords
                                                   : sentenceof(alone);
  while (why.ends_with('\n') || why.ends_with('.')) why.pop_back();
  if (event.end == MacroEnd::noaverage) return "WARNING: there is no population average: " + why + ".";
  return formatted("WARNING: quasi-likelihood (PQL) has no estimates. It ended at macro iteration %d: ", event.macro) +
         why +
         ".\nMaximum likelihood begins from a regression without random effects.\n"
         "There are no results of PQL and no population average, and no residual or graph files but those of an "
         "engine.";
}

Failure lookforseparation(MacroState& state) {
  return state.saturated > 0 || state.left <= 1 ? findseparation(state) : Failure{};
}

bool endseparated(MacroState& state, const PassResults& results, Failure& failure) {
  if (failure.row == abandoned) return false;
  if (Failure unread = findseparation(state)) {
    failure = std::move(unread);
    return false;
  }
  if (!state.separation.known()) return false;
  failure = {};
  state.end = MacroEnd::separated;
  tellobserver(state.analysis.observer.macroends, MacroEvent{state.end, state.macro, results, state.separation});
  return true;
}

}  // namespace kdr
