#include "estimate/quasi/macroloop.h"

#include <cmath>
#include <string>
#include <utility>

#include "core/formatted.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/runpass.h"
#include "estimate/quasi/enginephase.h"
#include "estimate/quasi/macrocontrol.h"
#include "estimate/quasi/separation.h"
#include "estimate/quasi/workingdata.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// The variance that the outcome type implies at the mean outcome of the identity pass.
Failure impliedvariance(Family family, double mean, double& variance) {
  const bool poisson = family == Family::poisson;
  const char* words = "\nThe outcome variable must take on values between 0 and 1.\n";
  if (!poisson && !(mean > 0.0 && mean < 1.0)) return failedwith(words, words);
  variance = poisson ? mean : mean * (1.0 - mean);
  return {};
}

PassPlan planof(const MacroState& state, PassKind kind, int macro) {
  const Analysis& analysis = state.analysis;
  PassPlan plan;
  plan.kind = kind;
  plan.macro = macro;
  plan.limit = analysis.control.numit;
  plan.stopval = analysis.control.stopval;
  plan.fixsigma2 = analysis.model.restrictions.fixsigma2.value_or(0.0);
  plan.robust = kind != PassKind::identity;
  plan.tausstand = kind == PassKind::populationaverage;
  if (state.creeps && !plan.tausstand) plan.searching = Searching::always;
  if (kind != PassKind::identity) plan.start = &state.previous;
  plan.freshgamma = kind == PassKind::pql && macro == 2;
  return plan;
}

// A pass over the blocks of the MDM file, which become the first working data file.
Failure identitypass(Pass& pass, MacroState& state, PassResults& results) {
  const Analysis& analysis = state.analysis;
  const bool counted = analysis.model.outcome.counted, factored = havefactors(analysis.model);
  const std::size_t records = at(analysis.mdm.numl1rec);
  if (Failure failure = beginpass(pass, analysis, planof(state, PassKind::identity, state.macro))) return failure;
  RecordUnits units;
  startrecords(units, analysis);
  WorkingFile working;
  if (Failure failure = startworking(working)) return failure;
  units.working = working.file();
  if (counted) state.counts.reset(records);
  units.counts = counted ? &state.counts : nullptr;
  if (factored) state.factors.reset(records);
  units.factors = factored ? &state.factors : nullptr;
  double outcomes = 0.0, counts = 0.0;
  Failure failure = datapass(pass, [&](UnitProducts& unit) {
    if (!nextunit(units, unit)) return false;
    for (std::size_t i = 0; i < at(unit.nj); ++i) {
      const double* record = units.unit.records.data() + i * at(units.layout.width);
      outcomes += record[units.layout.observed];
      counts += counted ? record[units.layout.count] : 1.0;
    }
    return true;
  });
  if (units.failure) return units.failure;
  if (failure) return failure;
  if (Failure unwritten = finishworking(std::move(working), state.working)) return unwritten;
  state.layout = mdmlayout(analysis.model, analysis.mdm);
  state.mean = outcomes / counts;
  if (analysis.control.shares.asked) {
    state.moments = designmoments(pass);
    if (state.moments && counted) state.moments->count = counts / state.moments->records;
  }
  return runpass(pass, state.iterations, results, [&](double& variance) {
    return impliedvariance(analysis.model.outcome.family, state.mean, variance);
  });
}

// A pass over working data, whose data pass is done.
Failure workingpass(Pass& pass, MacroState& state, PassResults& results) {
  if (Failure failure = runpass(pass, state.iterations, results)) return failure;
  if (results.kind == PassKind::pql) takeshares(pass, state.moments, results);
  if (state.limited > 0)
    results.warnings.push_back(
        formatted("WARNING: the working weights of %d records were held at %.0f.", state.limited, largestweight));
  return {};
}

// From the scale of the outcome to that of the link: the taus of an identity pass over the square of the derivative.
void rescaletaus(MacroState& state) {
  const bool poisson = state.analysis.model.outcome.family == Family::poisson;
  const double v = poisson ? state.mean : state.mean * (1.0 - state.mean);
  for (Array<double>* tau : {&state.previous.taupi, &state.previous.taubeta})
    for (double& t : *tau) t /= v * v;
}

// Whether no fixed effect has moved by a share of its standard error since the pass before.
bool averagestands(const PassResults& now, const Array<double>& before) {
  constexpr double share = 1.0e-6;
  const std::size_t g = before.size();
  for (std::size_t i = 0; i < g; ++i)
    if (!(std::fabs(now.est.gammahat[i] - before[i]) <= share * std::sqrt(now.covariance[i * g + i]))) return false;
  return true;
}

// The population average: passes at the fixed effects of the one before, with the taus held, until they stand. The data
// pass of the first is done. The solution is that of M'V^-1 (Z - M gamma) = 0 at working data of its own, wherever the
// passes start.
Failure averagephase(Pass& pass, MacroState& state) {
  constexpr int farlimit = 300;
  const int asked = state.analysis.control.popavit;
  // Effects that run away have no average to settle: its first pass is shown.
  const int limit = state.separation.known() ? 1 : asked > 1 ? asked : farlimit;
  beginmacro(state);
  for (int round = 1;; ++round) {
    const Array<double> before = state.average ? state.average->est.gammahat.copy() : Array<double>();
    PassResults& results = state.average.emplace();
    if (Failure failure = workingpass(pass, state, results)) return failure;
    results.rounds = round;
    const bool stands = !before.empty() && !state.shortened && averagestands(results, before);
    if (!stands && round < limit && results.ending != Ending::keyboard) {
      Pass next;
      if (Failure failure = prepareworkingdata(pass, state, {false, false, Predictor::fixed}, next,
                                               planof(state, PassKind::populationaverage, state.macro)))
        return failure;
      pass = std::move(next);
      continue;
    }
    results.unsettled = !stands;
    tellobserver(state.analysis.observer.passstands, ChainPass{state, pass, results});
    return {};
  }
}

// The end of a chain without population average, whose failure does not take the results of an engine with it.
Failure withoutaverage(const MacroState& state, Failure failure) {
  if ((!state.laplace6 && !state.quadrature) || !ofnumbers(failure, state.analysis.control)) return failure;
  tellobserver(state.analysis.observer.macroends,
               MacroEvent{MacroEnd::noaverage, state.macro, state.unitspecific, state.separation, &failure});
  return {};
}

// The passes, from the first to the population average.
Failure runchain(ChainFit& fit) {
  MacroState& state = fit.state;
  Pass& pass = fit.pass;
  for (bool first = true;; first = false) {
    beginmacro(state);
    PassResults& results = state.unitspecific;
    results = {};
    if (Failure failure = first ? identitypass(pass, state, results) : workingpass(pass, state, results))
      return failure;
    tellobserver(state.analysis.observer.passstands, ChainPass{state, pass, results});
    if (Failure failure = lookforseparation(state)) return failure;
    bool closes = macroend(state, results, first) != MacroEnd::goeson;
    if (closes)
      if (Failure failure = closephase(pass, state, results)) return failure;
    Pass next;
    const auto prepare = [&] {
      return prepareworkingdata(
          pass, state, {first, state.macro == 2 || closes, closes ? Predictor::corrected : Predictor::conditional},
          next, planof(state, closes ? PassKind::populationaverage : PassKind::pql, state.macro + 1));
    };
    Failure failure = prepare();
    if (failure && !closes && endseparated(state, results, failure)) {
      closes = true;
      if ((failure = closephase(pass, state, results))) return failure;
      next = Pass();
      failure = prepare();
    }
    if (failure) return closes ? withoutaverage(state, std::move(failure)) : std::move(failure);
    if (first) rescaletaus(state);
    pass = std::move(next);
    if (!closes) continue;
    failure = averagephase(pass, state);
    return failure ? withoutaverage(state, std::move(failure)) : Failure{};
  }
}

}  // namespace

Failure fitnonlinear(ChainFit& fit) {
  MacroState& state = fit.state;
  state.left = state.analysis.control.macroit;
  if (Failure failure = checkoutcomes(state)) return failure;
  tellobserver(state.analysis.observer.separation, state.separation);
  Failure failure = runchain(fit);
  return failure ? enginesalone(fit, std::move(failure)) : Failure{};
}

}  // namespace kdr
