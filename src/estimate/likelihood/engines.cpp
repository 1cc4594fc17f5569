#include "estimate/likelihood/engines.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "core/formatted.h"
#include "core/modelwalk.h"
#include "estimate/inference/modelstatistics.h"
#include "estimate/laplace/laplace.h"
#include "estimate/likelihood/recordbatches.h"
#include "estimate/likelihood/unconditional.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/iteration.h"
#include "estimate/linear/unitresults.h"
#include "estimate/linear/usable.h"
#include "estimate/quadrature/movingquadrature.h"
#include "estimate/quadrature/quadrature.h"
#include "estimate/quasi/fixedrows.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

EngineData enginedata(const Pass& pass, RecordSource source) {
  return {pass.model().outcome.family, &pass.design,           pass.npi,         pass.nbeta,
          pass.mdm().nunits3,          at(pass.mdm().nunits2), at(pass.nunits1), source};
}

EngineSettings enginesettings(const Pass& pass, Engine engine, int iterations) {
  const Observer& observer = pass.observer();
  return {iterations, pass.analysis->threads, [&observer] { return observer.stops(); },
          [&observer, engine](const EngineEvent& event) { tellobserver(observer.engine, engine, event); }};
}

// `before` are the results of the last pass.
PassResults resultsof(const Pass& pass, PassKind kind, const EngineResult& fit, const PassResults& before) {
  PassResults results;
  results.kind = kind;
  results.macro = before.macro;
  results.est.taupi = fit.estimates.taupi.copy();
  results.est.taubeta = fit.estimates.taubeta.copy();
  results.est.gammahat = fit.estimates.gamma.copy();
  results.est.sigma2 = 1.0;
  results.degrees = before.degrees.copy();
  results.iteration = fit.iteration;
  results.loglik = fit.loglik;
  results.errors.asked = true;
  if (fit.end == EngineEnd::noiterations) {
    // The estimates are those of the pass, and so are their covariances.
    results.errors.order = before.errors.order;
    results.errors.covariance = before.errors.covariance.copy();
    results.covariance = before.covariance.copy();
    complete(results, pass.model(), countsof(pass));
    return results;
  }
  if (!fit.converged) results.ending = Ending::limit;
  results.marginal = fit.marginal;
  results.errors.order = static_cast<int>(fit.estimates.ntaupi() + fit.estimates.ntaubeta());
  results.errors.known = true;
  if (fit.completepi) results.errors.taupi = fit.setaupi.copy();
  if (fit.completebeta) results.errors.taubeta = fit.setaubeta.copy();
  results.errors.covariance = fit.taucovariance.copy();
  results.covariance = fit.vgamma.copy();
  results.joint = fit.covariance.copy();
  results.warnings = fit.warnings;
  complete(results, pass.model(), countsof(pass));
  return results;
}

// What is known of separation holds for every likelihood.
void warnofseparation(const MacroState& state, PassResults& results) {
  const std::vector<std::string>& warnings = state.separation.warnings;
  results.warnings.insert(results.warnings.end(), warnings.begin(), warnings.end());
}

// The estimates of an engine become those of the pass, without a covariance where the engine has none.
void takeestimates(Pass& pass, const PassResults& results) {
  pass.est.taupi = results.est.taupi.copy();
  pass.est.taubeta = results.est.taubeta.copy();
  pass.est.gammahat = results.est.gammahat.copy();
  if (results.covariance.empty()) return;
  pass.est.vgamma = results.covariance.copy();
  for (double& v : pass.est.vgamma) v /= pass.est.sigma2;
}

// The modes and the curvature of the last walk are what quadrature starts from.
void takemodes(Pass& pass, const Array<double>& u, const Array<double>& v) {
  if (u.empty()) return;
  pass.vstar.cells = v.copy();
  sweepunits(
      pass.n2of, [](int) {},
      [&](int, std::size_t j, double* hot) {
        std::copy_n(u.data() + j * at(pass.p), pass.p, hot + pass.store.atustar);
      },
      [](int) {}, changing(pass.store.hot));
}

// By steps on the outer products of the scores, the taus as they are. `stopped`: the user has ended the iterations
// before.
Failure outerlaplace(Pass& pass, MacroState& state, const PassResults& before, bool& stopped) {
  RecordBatches batches;
  const EngineData data = enginedata(pass, recordbatches(batches, pass, state));
  LaplaceSettings settings;
  settings.engine = enginesettings(pass, Engine::laplace6, stopped ? 0 : pass.control().laplaceit);
  settings.stopmacro = pass.control().stopmacro;
  const LaplaceResult result = runlaplace(data, settings, parametersof(pass.p, pass.b, pass.g, pass.est),
                                          posteriormeans2(pass), pass.vstar.cells, before.loglik.value_or(absent));
  if (batches.failure) return std::move(batches.failure);
  if (storefailure(pass.store)) return storefailure(pass.store);
  const EngineResult& fit = result.fit;
  stopped = stopped || fit.stopped;
  PassResults results = resultsof(pass, PassKind::laplace6, fit, before);
  takeshares(pass, state.moments, results);
  warnofseparation(state, results);
  const bool usable = fit.end != EngineEnd::failed;
  if (fit.end == EngineEnd::estimated)
    results.reliabilities = {result.rel2.copy(), result.rel3.copy(), result.nrel2, result.nrel3};
  if (usable) {
    takeestimates(pass, results);
    takemodes(pass, result.u, result.v);
    if (storefailure(pass.store)) return storefailure(pass.store);
    state.laplacegamma = pass.est.gammahat.copy();
  }
  tellobserver(pass.observer().enginestands,
               EngineStage{Engine::laplace6, fit, results, result.finalcall, usable, {}, state.separation.known()});
  if (usable) state.laplace6 = std::move(results);
  return {};
}

Adaptation startingadaptation(Pass& pass) {
  const int q = pass.p, r = pass.b;
  Adaptation adaptation;
  adaptation.vstar = pass.vstar.cells.copy();
  adaptation.C3 = pass.dinv.cells.copy();
  for (double& c : adaptation.C3) c *= pass.est.sigma2;
  adaptation.ustar = posteriormeans2(pass);
  adaptation.P.reset(at(pass.mdm().nunits2) * square(q));
  Array<double> C2(square(q)), Q(at(r) * at(q)), room(at(r) * at(q));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int k, std::size_t j, const double* hot) {
        unpack(q, hot + pass.store.atCinv, C2.data());
        for (double& c : C2) c *= pass.est.sigma2;
        mulAB(Q.data(), hot + pass.store.atBZ1, C2.data(), r, q, q);
        addunconditional(adaptation.P.data() + j * square(q), q, r, C2.data(), Q.data(),
                         adaptation.C3.data() + at(k) * square(r), room.data());
      },
      [](int) {}, reading(pass.store.hot));
  return adaptation;
}

// Standard errors of the fixed effects that fall short of those of quasi-likelihood by a tenth come from integrals with
// too few points: their information counts what the integration misses.
bool shorterrors(const EngineResult& fit, const PassResults& before, int g) {
  constexpr double share = 0.8;
  for (int i = 0; i < g; ++i)
    if (fit.vgamma[i * (g + 1)] < share * before.covariance[i * (g + 1)]) return true;
  return false;
}

Failure quadrature(Pass& pass, MacroState& state, const PassResults& before) {
  RecordBatches batches;
  const EngineData data = enginedata(pass, recordbatches(batches, pass, state));
  QuadratureSettings settings;
  settings.engine = enginesettings(pass, Engine::quadrature, pass.control().agqit);
  settings.points = pass.control().agqpoints;
  settings.derivlevel = pass.control().agqderivlevel;
  settings.diagonalpi = pass.model().restrictions.diagtaupi;
  settings.diagonalbeta = pass.model().restrictions.diagtaubeta;
  const QuadratureResult result =
      adaptivequadrature(data, settings, parametersof(pass.p, pass.b, pass.g, pass.est), startingadaptation(pass));
  if (batches.failure) return std::move(batches.failure);
  if (storefailure(pass.store)) return storefailure(pass.store);
  const EngineResult& fit = result.fit;
  PassResults results = resultsof(pass, PassKind::quadrature, fit, before);
  takeshares(pass, state.moments, results);
  warnofseparation(state, results);
  const bool estimated = fit.end == EngineEnd::estimated;
  const bool takenover = fit.end != EngineEnd::failed && !fit.farbelow;
  if (takenover) {
    takeestimates(pass, results);
    state.quadraturegamma = pass.est.gammahat.copy();
  }
  EngineStage stage{Engine::quadrature, fit, results, false, takenover, {}, state.separation.known()};
  if (estimated && shorterrors(fit, before, pass.g))
    stage.behind.emplace_back("WARNING: standard errors are far below those of PQL. Use more quadrature points.");
  tellobserver(pass.observer().enginestands, stage);
  if (estimated) state.quadrature = std::move(results);
  return {};
}

// The symmetric matrix of n(n+1)/2 elements.
template <class Matrix, class Element>
Matrix symmetric(int n, Element element) {
  Matrix matrix(square(n));
  eachelement(
      n, [&](int e, int i, int j) { matrix[at(i) * at(n) + at(j)] = matrix[at(j) * at(n) + at(i)] = element(at(e)); });
  return matrix;
}

EngineResult engineresult(const MovingResult& moving) {
  EngineResult fit;
  fit.warnings = moving.warnings;
  fit.stopped = moving.end == MovingEnd::stopped;
  if (!moving.usable) return fit;
  fit.end = EngineEnd::estimated;
  fit.estimates = moving.parameters.copy();
  fit.iteration = moving.iterations;
  fit.converged = moving.end == MovingEnd::converged;
  fit.marginal = moving.loglikelihood;
  // The printed likelihood is without binomial coefficients, and lower by a constant.
  fit.loglik = moving.loglikelihood - moving.combinations - 0.5 * moving.records * std::log(2.0 * M_PI);
  fit.covariance = moving.covariance.copy();
  fit.robust = moving.robust.copy();
  takecovariance(fit);
  // What is at its edge is not incomplete.
  const std::size_t P2 = fit.estimates.ntaupi();
  const auto mark = [&](int n, std::size_t first, Array<double>& errors) {
    eachelement(n, [&](int e, int i, int j) {
      if (moving.edge[first + at(e)]) errors[at(i) * at(n) + at(j)] = errors[at(j) * at(n) + at(i)] = absent;
    });
  };
  mark(fit.estimates.q, 0, fit.setaupi);
  mark(fit.estimates.r, P2, fit.setaubeta);
  if (!fit.robust.empty()) {
    mark(fit.estimates.q, 0, fit.robustpi);
    mark(fit.estimates.r, P2, fit.robustbeta);
  }
  fit.completepi = fit.completebeta = true;
  return fit;
}

// What every engine of these coordinates is told.
MovingSettings movingsettings(const Pass& pass) {
  MovingSettings settings;
  settings.unitlevel = pass.mdm().twolevel() ? 2 : 3;
  settings.outcome = pass.model().outcome.family;
  if (settings.outcome == Family::multinomial) settings.response = responserows(*pass.analysis);
  settings.outerproducts = pass.control().agqderivlevel == 1;
  settings.diagonalpi = pass.model().restrictions.diagtaupi;
  settings.diagonalbeta = pass.model().restrictions.diagtaubeta;
  settings.posteriors = pass.analysis->wanted.posteriors;
  settings.threads = pass.analysis->threads;
  return settings;
}

// Runs one from the estimates of the pass. `printed`: what the log-likelihoods that are told go without.
Failure runmoving(const Pass& pass, const MacroState& state, Engine engine, const MovingSettings& settings,
                  double printed, MovingResult& moving) {
  RecordBatches batches;
  RecordSource source = recordbatches(batches, pass, state);
  const Observer& observer = pass.observer();
  const auto tellevent = [&](const EngineEvent& event) { tellobserver(observer.engine, engine, event); };
  QuadratureObserver watch;
  watch.iteration = [&](int number, double marginal) {
    tellevent({EngineEvent::Kind::iteration, number, marginal - printed, EngineFailure::none});
  };
  watch.checks = [&](int points) { tellevent({EngineEvent::Kind::checked, points, 0.0, EngineFailure::none}); };
  watch.heavy = [&](int points, double seconds) {
    tellevent({EngineEvent::Kind::heavy, points, 0.0, EngineFailure::none, seconds});
  };
  watch.stop = [&] { return observer.stops(); };
  if (observer.confirmstop) watch.halt = watch.stop;  // by a user who waits
  tellevent({EngineEvent::Kind::begun, 0, 0.0, EngineFailure::none});
  // Without estimates of quasi-likelihood it finds a start of its own.
  const bool started = state.end != MacroEnd::failed || (engine == Engine::quadrature && state.laplace6);
  Parameters start{pass.p, pass.b, pass.g, {}, {}, {}};
  if (started) start = parametersof(pass.p, pass.b, pass.g, pass.est);
  moving = movingquadrature(settings, pass.npi, pass.nbeta, pass.design, source, start, watch);
  return std::move(batches.failure);
}

// The sandwich of the level-3 units' scores. It has no inverse where there are no more units than parameters.
void takesandwich(const Pass& pass, const EngineResult& fit, PassResults& results) {
  results.weighted = pass.model().weighted;
  results.fewunits = fewunits(pass);
  TauErrors& errors = results.robusterrors;
  errors.asked = true;
  errors.order = results.errors.order;
  if (fit.robust.empty()) return;
  const std::size_t P = fit.estimates.count(), taus = at(errors.order);
  Array<double> gamma = diagonalblock(fit.robust.data(), P, taus, at(fit.estimates.g));
  if (!positivecovariance(gamma.data(), fit.estimates.g)) return;
  results.robust = std::move(gamma);
  errors.known = true;
  errors.taupi = fit.robustpi.copy();
  errors.taubeta = fit.robustbeta.copy();
  errors.covariance = diagonalblock(fit.robust.data(), P, 0, taus);
}

// What the results of a weighted run say of their standard errors.
std::string sandwichwords(const MovingResult& moving, const PassResults& results, bool twolevel) {
  const int level = twolevel ? 2 : 3;
  if (moving.fewerunits)
    return formatted(
        "WARNING: there are no more level-%d units than parameters: the standard errors, which come from "
        "the units' scores, are not to be trusted.",
        level);
  if (!results.fewunits) return "";
  return formatted(
      "The standard errors come from the scores of the level-%d units, and are for data with a larger number of them.",
      level);
}

// Its results; `notes` and what is at the edge among them.
PassResults movingresults(const Pass& pass, PassKind kind, const MovingResult& moving, const EngineResult& fit,
                          const PassResults& before) {
  PassResults results = resultsof(pass, kind, fit, before);
  takesandwich(pass, fit, results);
  complete(results, pass.model(), countsof(pass));
  if (moving.end == MovingEnd::stopped) results.ending = Ending::keyboard;
  if (moving.end == MovingEnd::nomaximum) results.ending = Ending::nomaximum;
  results.notes = moving.notes;
  if (results.weighted)
    if (std::string words = sandwichwords(moving, results, pass.mdm().twolevel()); !words.empty())
      results.notes.push_back(std::move(words));
  const auto edges = [&](int n, std::size_t first) {
    return symmetric<std::vector<bool>>(n, [&](std::size_t e) -> bool { return moving.edge[first + e]; });
  };
  results.errors.edgepi = edges(fit.estimates.q, 0);
  results.errors.edgebeta = edges(fit.estimates.r, fit.estimates.ntaupi());
  return results;
}

// The estimates become those of the pass; the population average inverts its taus.
void takemoving(Pass& pass, const MovingResult& moving, const PassResults& results) {
  takeestimates(pass, results);
  pass.est.taupi = moving.lifted.taupi.copy();
  pass.est.taubeta = moving.lifted.taubeta.copy();
}

// What one engine of these coordinates leaves elsewhere than another.
struct MovingEngine {
  Engine engine;
  PassKind kind;
  double printed;  // what the log-likelihoods that are told go without
  Array<double>& gamma;
  std::optional<PassResults>& stands;
};

// `own(moving, results)` adds what this engine alone has found.
template <class Own>
Failure runengine(Pass& pass, MacroState& state, const PassResults& before, const MovingEngine& made,
                  const MovingSettings& settings, bool& stopped, Own own) {
  MovingResult moving;
  if (Failure failure = runmoving(pass, state, made.engine, settings, made.printed, moving)) return failure;
  stopped = moving.end == MovingEnd::stopped;
  const EngineResult fit = engineresult(moving);
  PassResults results;
  if (moving.usable) {
    results = movingresults(pass, made.kind, moving, fit, before);
    takeshares(pass, state.moments, results);
    warnofseparation(state, results);
    takemoving(pass, moving, results);
    results.reliabilities = std::move(moving.reliabilities);
    own(moving, results);
    if (pass.analysis->wanted.posteriors)
      state.posteriors = {made.kind, moving.points, {pass.est.gammahat.copy(), std::move(moving.posteriors)}};
    if (storefailure(pass.store)) return storefailure(pass.store);
    made.gamma = pass.est.gammahat.copy();
  }
  tellobserver(pass.observer().enginestands,
               EngineStage{made.engine, fit, results, false, moving.usable, {}, state.separation.known()});
  if (!moving.usable) return {};
  made.stands = std::move(results);
  state.engine = made.kind;
  return {};
}

// Laplace-6 by Newton steps in the coordinates of the quadrature.
Failure laplace(Pass& pass, MacroState& state, const PassResults& before, bool& stopped) {
  MovingSettings settings = movingsettings(pass);
  settings.sixth = true;
  settings.points = 1;
  settings.iterations = pass.control().laplaceit;
  // The printed likelihood is lower than the marginal one by this constant.
  const double constant = 0.5 * static_cast<double>(pass.nunits1) * std::log(2.0 * M_PI);
  const MovingEngine made{Engine::laplace6, PassKind::laplace6, constant, state.laplacegamma, state.laplace6};
  return runengine(pass, state, before, made, settings, stopped, [&](const MovingResult& moving, PassResults&) {
    takemodes(pass, moving.laplace.u, moving.laplace.v);
  });
}

// Quadrature whose nodes go with the data, or first-order Laplace.
Failure movingnodes(Pass& pass, MacroState& state, const PassResults& before) {
  MovingSettings settings = movingsettings(pass);
  settings.points = pass.control().agqauto ? 0 : pass.control().agqpoints;
  settings.iterations = pass.control().agqit;
  const MovingEngine made{Engine::quadrature, PassKind::quadrature, 0.0, state.quadraturegamma, state.quadrature};
  bool stopped = false;
  return runengine(pass, state, before, made, settings, stopped, [](const MovingResult& moving, PassResults& results) {
    const PointsCheck& check = moving.check;
    results.quadrature = {moving.points, check.made ? check.next : 0, check.change, check.errorchange, check.agrees};
  });
}

// The same of outcomes with categories.
std::string categoryobstacle(const Model& model, const Control& control) {
  constexpr int mosteffects = 4;  // of a level
  if (control.agqfixed) return "AGQNODES:FIXED is for Bernoulli, binomial and Poisson outcomes.";
  const ModelRows rows = modelrows(model);
  for (const EffectRow& effect : rows.effects)
    if (rows.owner(effect).threshold && effect.group != 0)
      return "A run with constrained thresholds cannot go on to adaptive quadrature.";
  const int q = model.coef.ntaupi, r = model.coef.ntaubeta;
  if (model.outcome.categories > static_cast<int>(mostresponses) + 1)
    return formatted("Quadrature takes up to %d categories.", static_cast<int>(mostresponses) + 1);
  const bool laplace = control.agqpoints == 1 && !control.agqauto;
  if (laplace || std::max(q, r) <= mosteffects) return "";
  const int points = control.agqauto ? nextpoints(0) : control.agqpoints;
  return formatted(
      "Quadrature of outcomes with categories takes up to %d random effects of a level. %d points for %d and %d "
      "effects would be %.0f nodes. One point, AGQ:Y,%d,1 (the Laplace approximation), does without them.",
      mosteffects, points, q, r, std::pow(points, q + r), control.agqit);
}

}  // namespace

std::string engineobstacle(const Model& model, const Control& control) {
  const char* engine = control.laplace ? "Laplace-6" : control.agqpoints != 0 ? "adaptive quadrature" : nullptr;
  if (engine == nullptr) return "";
  const Restrictions& held = model.restrictions;
  const bool restricted = held.haveesttau2 || held.haveesttau3 || held.havecontau2 || held.havecontau3;
  // Steps on the taus themselves know no diagonal ones.
  const bool diagonal = control.laplace && control.agqfixed && (held.diagtaupi || held.diagtaubeta);
  if (model.autovknown != 0)
    return formatted(
        "VARIANCEKNOWN: is a variance of working values, which only quasi-likelihood has: such a run cannot "
        "go on to %s.",
        engine);
  if (model.weighted && control.laplace)
    return "A run with design weights cannot go on to Laplace-6: its terms of the sixth order know no weights. "
           "Quadrature "
           "with one or more points (AGQ:) does.";
  if (model.weighted && control.agqfixed)
    return "A run with design weights cannot go on to quadrature with fixed nodes.";
  if (model.weighted && control.agqderivlevel == 1)
    return "With design weights standard errors are those of the sandwich: outer products alone (AGQDERIVLEVEL:1) are "
           "no "
           "information.";
  if (restricted || diagonal) return formatted("A run with restricted variance components cannot go on to %s.", engine);
  return model.outcome.categorical() ? categoryobstacle(model, control) : "";
}

std::optional<PassKind> lastengine(const Control& control) {
  if (control.agqfixed) return std::nullopt;
  if (control.agqpoints != 0) return PassKind::quadrature;
  return control.laplace ? std::optional(PassKind::laplace6) : std::nullopt;
}

Failure maximumlikelihood(Pass& pass, MacroState& state, const PassResults& before) {
  const Control& control = pass.control();
  bool stopped = before.ending == Ending::keyboard;
  if (control.laplace) {
    // Without an iteration the likelihood is that of quasi-likelihood, which is told by the one that knows of it.
    const bool none = control.laplaceit == 0 || stopped;
    const auto engine = control.agqfixed || none ? outerlaplace : laplace;
    if (Failure failure = engine(pass, state, before, stopped)) return failure;
  }
  if (control.agqpoints == 0 || stopped) return {};
  return (control.agqfixed ? quadrature : movingnodes)(pass, state, before);
}

}  // namespace kdr
