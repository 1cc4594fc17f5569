// A fit of a model of the C interface: the values that the estimation takes, and its results as arrays.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>

#include "core/failure.h"
#include "core/formatted.h"
#include "core/modelcounts.h"
#include "core/modelwalk.h"
#include "core/results.h"
#include "data/mdm.h"
#include "estimate/inference/settled.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/deletion.h"
#include "estimate/linear/linearrun.h"
#include "estimate/linear/unitresults.h"
#include "estimate/linear/weights.h"
#include "estimate/quasi/categories.h"
#include "estimate/quasi/categoryloop.h"
#include "estimate/quasi/macroloop.h"
#include "kernel/sizes.h"
#include "library/handles.h"

struct kdr3_result {
  kdr::PassResults results;  // of the phase that the run ends with: an engine where there is one
  kdr::UnitCounts counts;
  int p = 0, b = 0;
  std::size_t g = 0;
  std::vector<std::string> names, warnings;
  std::vector<double> level2, level3;  // posterior means, by unit
};

namespace kdr::library {

namespace {

constexpr double absent = std::numeric_limits<double>::quiet_NaN();
double known(double value) { return value == missingcode ? absent : value; }

Centering centeringof(kdr3_centering centering) { return static_cast<Centering>(centering); }

// A term of an equation with the terms of the next level in its place.
struct Branch {
  const kdr3_model::Term* term;
  std::vector<Branch> terms;
};

// The terms of an owner in the order of their variables, the intercept first, as the equation tables want them.
std::vector<Branch> branches(const std::vector<kdr3_model::Term>& list, int owner) {
  std::vector<Branch> found;
  for (const kdr3_model::Term& term : list)
    if (term.owner == owner) found.push_back({&term, {}});
  std::ranges::sort(found, {}, [](const Branch& branch) { return branch.term->variable; });
  return found;
}

std::vector<Branch> equationsof(const kdr3_model& model) {
  std::vector<Branch> level1 = branches(model.level1, 0);
  for (Branch& coefficient : level1) {
    coefficient.terms = branches(model.level2, static_cast<int>(coefficient.term - model.level1.data()));
    for (Branch& term : coefficient.terms)
      term.terms = branches(model.level3, static_cast<int>(term.term - model.level2.data()));
  }
  return level1;
}

// The values of one fit. They stay where they are while it runs.
struct Values {
  MdmData mdm;
  Model model;
  Control control;
  DesignWeights weights;
  Observer observer;
};

void setequations(const std::vector<Branch>& equations, int set, Model& model) {
  std::size_t c = 0;
  int place = 0;
  for (const Branch& coefficient : equations) {
    const auto v = at(coefficient.term->variable);
    model.use1.row(set)[v] = Use::predictor;
    model.center1[v] = centeringof(coefficient.term->centering);
    model.fixed1.row(set)[c] = coefficient.term->random ? 0 : 1;
    for (std::size_t s = 0; s < coefficient.terms.size(); ++s, ++place) {
      const Branch& term = coefficient.terms[s];
      model.terms2.row(set, static_cast<int>(c))[s] = term.term->variable;
      model.center2[at(term.term->variable)] = centeringof(term.term->centering);
      model.fixed2.row(set)[place] = term.term->random ? 0 : 1;
      for (std::size_t u = 0; u < term.terms.size(); ++u) {
        model.terms3.row(set, place)[u] = term.terms[u].term->variable;
        model.center3[at(term.terms[u].term->variable)] = centeringof(term.terms[u].term->centering);
      }
    }
    ++c;
  }
}

std::string checkequations(const kdr3_model& model, const std::vector<Branch>& equations) {
  if (equations.empty()) return "The model has no level-1 coefficient.";
  bool random2 = false, random3 = false;
  for (const Branch& coefficient : equations) {
    const std::string name = model.data->names[0][at(coefficient.term->variable)];
    if (coefficient.terms.empty()) return "The level-1 coefficient " + name + " has no level-2 term.";
    random2 = random2 || coefficient.term->random;
    for (const Branch& term : coefficient.terms) {
      if (term.terms.empty())
        return "The level-2 coefficient " + model.data->names[1][at(term.term->variable)] + " of " + name +
               " has no level-3 term.";
      random3 = random3 || term.term->random;
    }
  }
  if (!random2 || !random3) return "The model needs a random effect at level 2 and one at level 3.";
  return "";
}

// What the engines can't fit yet, as the program refuses it.
std::string checkengines(const Values& values) {
  const Control& control = values.control;
  const bool engine = control.laplace || control.agqpoints != 0;
  if (!engine) return "";
  if (control.laplace && values.model.outcome.family != Family::bernoulli)
    return "Laplace-6 is for Bernoulli outcomes.";
  if (values.model.outcome.linear() || values.model.outcome.categorical())
    return "Adaptive quadrature is for Bernoulli, binomial and Poisson outcomes.";
  if (values.model.weighted) return "A model with design weights cannot go on to maximum likelihood by integration.";
  if (control.laplace && (values.model.restrictions.diagtaupi || values.model.restrictions.diagtaubeta))
    return "A model with restricted variance components cannot go on to Laplace-6.";
  return "";
}

// The restricted likelihood and degrees of freedom from it, as the program refuses them.
std::string checksmallsample(const Values& values) {
  const Control& control = values.control;
  const bool degrees = control.ddf != DegreesMethod::counts;
  if (!control.restricted && !degrees) return "";
  if (!values.model.outcome.linear()) return "REML and DDF are for linear models only.";
  if (values.model.weighted) return "REML and DDF cannot be combined with design weights.";
  if (control.ddf == DegreesMethod::kenwardroger && !control.restricted)
    return "DDF 2 (Kenward and Roger) is for the restricted likelihood: set REML to 1.";
  return "";
}

std::string makevalues(const kdr3_model& model, Values& values) {
  const std::vector<Branch> equations = equationsof(model);
  if (std::string words = checkequations(model, equations); !words.empty()) return words;
  values.mdm = model.data->mdm.copy();
  values.control = model.control;
  Model& made = values.model;
  MdmData& mdm = values.mdm;
  made.outcome = model.kind;
  made.outvar = model.outcome;
  made.outname = mdm.names1[at(model.outcome)];
  made.neqsets = model.kind.family == Family::multinomial ? model.kind.categories - 1 : 1;
  const int thresholds = model.kind.ordinal() ? model.kind.categories - 2 : 0;
  mdm.ncol1 = mdm.nvar1 + 1 + thresholds;
  mdm.ncol2 = mdm.nvar2 + 1;
  mdm.ncol3 = mdm.nvar3 + 1;
  mdm.maxbeta = mdm.ncol2 * (mdm.ncol1 - 1);
  mdm.names1.resize(at(mdm.ncol1));
  allocateequations(made, mdm.nvar1, mdm.ncol1, mdm.ncol2, mdm.ncol3);
  for (int set = 0; set < made.neqsets; ++set) {
    made.use1.row(set)[model.outcome] = Use::outcome;
    setequations(equations, set, made);
    for (int t = 0; t < thresholds; ++t) made.use1.row(set)[mdm.nvar1 + 1 + t] = Use::predictor;
  }
  for (int t = 0; t < thresholds; ++t) mdm.names1[at(mdm.nvar1 + 1 + t)] = paddedname(formatted("THOLD%d", t + 2));
  made.nointercept1 = equations.front().term->variable != 0;
  made.wgtvar1 = model.weights[0];
  made.wgtvar2 = model.weights[1];
  made.wgtvar3 = model.weights[2];
  made.weighted = made.wgtvar1 != 0 || made.wgtvar2 != 0 || made.wgtvar3 != 0;
  made.autovknown = model.knownvariance;
  made.restrictions.diagtaupi = model.diagtaupi;
  made.restrictions.diagtaubeta = model.diagtaubeta;
  if (model.fixsigma2 != 0.0) made.restrictions.fixsigma2 = model.fixsigma2;
  if (made.outcome.categorical()) made.restrictions.fixsigma2 = 1.0;
  if (made.outcome.single()) values.control.popavit = std::max(values.control.popavit, 1);
  completemodel(made);
  const auto n = at(made.coef.ngamma);
  made.constraints.reset(n);
  made.removed.reset(n);
  labelrandomeffects(made, mdm.names1, mdm.names2);
  markdeletion(made, mdm);
  if (std::string words = checksmallsample(values); !words.empty()) return words;
  return checkengines(values);
}

void listen(const kdr3_observer* observer, Observer& listener) {
  if (observer == nullptr || observer->size < sizeof(kdr3_observer)) return;
  void* state = observer->state;
  if (auto* stop = observer->stop) listener.interrupted = [stop, state] { return stop(state) != 0; };
  auto* progress = observer->progress;
  if (progress == nullptr) return;
  listener.iteration = [progress, state](const IterationEvent& event) {
    const std::string macro = event.macro > 0 ? formatted("macro iteration %d, ", event.macro) : "";
    progress(state,
             formatted("%siteration %d, log-likelihood %.6f", macro.c_str(), event.iteration, event.loglik).c_str());
  };
}

// The posterior means of a finished pass.
void takeeffects(Pass& pass, kdr3_result& result) {
  const Array<double> means = posteriormeans2(pass);
  result.level2.assign(means.begin(), means.end());
  result.level3.assign(pass.vstar.cells.begin(), pass.vstar.cells.end());
}

void warn(kdr3_result& result, const std::string& words) {
  if (!words.empty()) result.warnings.push_back(words);
}

Failure linearfit(const Analysis& analysis, kdr3_result& result) {
  LinearFit fit;
  if (Failure failure = fitlinear(analysis, fit)) return failure;
  takeeffects(fit.pass, result);
  result.counts = countsof(fit.pass);
  warn(result, unsettledwords(fit.results));
  result.results = std::move(fit.results);
  return {};
}

Failure chainfit(Values& values, const Analysis& analysis, kdr3_result& result) {
  ChainFit fit(analysis);
  if (values.model.outcome.categorical()) {
    CategoryTable table;
    if (Failure failure = readcategories(analysis, table)) return failure;
    if (Failure failure = fitcategories(table, fit)) return failure;
  } else if (Failure failure = fitnonlinear(fit)) {
    return failure;
  }
  MacroState& state = fit.state;
  result.counts = countsof(fit.pass);
  warn(result, unsettledwords(state.unitspecific));
  for (const std::string& words : state.unitspecific.warnings) warn(result, words);
  const bool quadrature = state.quadrature.has_value(), laplace = state.laplace6.has_value();
  result.results = std::move(quadrature ? *state.quadrature : laplace ? *state.laplace6 : state.unitspecific);
  if (quadrature || laplace)
    for (const std::string& words : result.results.warnings) warn(result, words);
  if ((analysis.control.agqpoints != 0 && !quadrature) || (analysis.control.laplace && !laplace && !quadrature))
    warn(result, "The engine has no results: these are those of quasi-likelihood.");
  return {};
}

// The names of the fixed effects: their variables of the three levels, intercepts behind others left out.
std::vector<std::string> namesof(const kdr3_model& model, const Model& made) {
  const std::vector<std::string>(&names)[3] = model.data->names;
  std::vector<std::string> list;
  const ModelRows rows = modelrows(made);
  for (const EffectRow& effect : rows.effects) {
    const CoefficientRow& coefficient = rows.owner(effect);
    const TermRow& term = rows.termof(effect);
    std::string name;
    const auto add = [&](const std::string& part) { name += (name.empty() ? "" : ":") + part; };
    if (coefficient.threshold) {
      add(formatted("threshold%d", coefficient.variable - static_cast<int>(names[0].size()) + 2));
    } else if (coefficient.variable != 0) {
      add(names[0][at(coefficient.variable)]);
    }
    if (term.variable != 0) add(names[1][at(term.variable)]);
    if (effect.variable != 0) add(names[2][at(effect.variable)]);
    if (name.empty()) name = "(intercept)";
    if (made.neqsets > 1) name += formatted("[%d]", coefficient.set + 1);
    list.push_back(name);
  }
  return list;
}

void put(const Array<double>& values, std::size_t n, double* to) {
  if (to == nullptr) return;
  for (std::size_t i = 0; i < n; ++i) to[i] = i < values.size() ? known(values[i]) : absent;
}

}  // namespace

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

kdr3_status kdr3_fit(const kdr3_model* model, const kdr3_observer* observer, kdr3_result** made) {
  return guarded([&]() -> kdr3_status {
    if (model == nullptr || made == nullptr) return error("A fit needs its model and a place for the handle.");
    *made = nullptr;
    Values values;
    if (std::string words = makevalues(*model, values); !words.empty()) return error(words);
    listen(observer, values.observer);
    if (values.model.weighted)
      if (const Failure failure = normaliseweights(values.model, values.mdm, values.observer, values.weights))
        return error(sentenceof(failure));
    centerlevel3(values.model, values.mdm);
    Analysis analysis{values.model, values.mdm, values.weights, values.control, values.observer, {}, {}, 1, nullptr};
    const unsigned cores = std::thread::hardware_concurrency();
    analysis.threads = model->threads > 0 ? model->threads : cores > 0 ? static_cast<int>(cores) : 1;

    auto result = std::make_unique<kdr3_result>();
    const bool linear = values.model.outcome.linear();
    const Failure failure = linear ? linearfit(analysis, *result) : chainfit(values, analysis, *result);
    if (failure) return error(failure.row == abandoned ? "The fit was stopped." : sentenceof(failure));
    const PassResults& results = result->results;
    result->p = values.model.coef.ntaupi;
    result->b = values.model.coef.ntaubeta;
    result->g = results.est.gammahat.size();
    result->names = namesof(*model, values.model);
    if (results.ending != Ending::converged)
      result->warnings.insert(result->warnings.begin(),
                              results.ending == Ending::keyboard
                                  ? "The iterations were stopped before they had converged."
                                  : "The iterations reached their limit before they had converged.");
    *made = result.release();
    return (*made)->warnings.empty() ? KDR3_OK : KDR3_WARNING;
  });
}

kdr3_status kdr3_result_summary(const kdr3_result* result, kdr3_summary* summary) {
  if (result == nullptr || summary == nullptr || summary->size < sizeof(kdr3_summary))
    return error("A summary needs its result and a struct whose size is set.");
  const PassResults& results = result->results;
  const bool quasi = results.kind == PassKind::pql || results.kind == PassKind::categories;
  const std::size_t size = summary->size;
  *summary = {};
  summary->size = size;
  summary->converged = results.ending == Ending::converged ? 1 : 0;
  summary->iterations = quasi ? results.macro : results.iteration;
  summary->records = at(result->counts.records);
  summary->units2 = at(result->counts.units2);
  summary->units3 = at(result->counts.units3);
  summary->fixedeffects = result->g;
  summary->random2 = at(result->p);
  summary->random3 = at(result->b);
  summary->parameters = static_cast<std::size_t>(results.parameters);
  summary->loglikelihood = results.kind == PassKind::linear ? known(results.loglik) : known(results.marginal);
  summary->sigma2 = results.est.sigma2;
  return KDR3_OK;
}

kdr3_status kdr3_result_fixed(const kdr3_result* result, double* estimates, double* covariance, double* robust,
                              double* df) {
  if (result == nullptr) return error("The result is missing.");
  const PassResults& results = result->results;
  const std::size_t g = result->g;
  put(results.est.gammahat, g, estimates);
  put(results.covariance, g * g, covariance);
  put(results.robust, g * g, robust);
  if (df != nullptr)
    for (std::size_t i = 0; i < g; ++i) df[i] = i < results.degrees.df.size() ? results.degrees.df[i] : absent;
  return KDR3_OK;
}

const char* kdr3_result_name(const kdr3_result* result, size_t i) {
  return result != nullptr && i < result->names.size() ? result->names[i].c_str() : nullptr;
}

kdr3_status kdr3_result_variances(const kdr3_result* result, double* taupi, double* taubeta, double* taupierrors,
                                  double* taubetaerrors, double* sigma2error) {
  if (result == nullptr) return error("The result is missing.");
  const PassResults& results = result->results;
  const std::size_t p = square(result->p), b = square(result->b);
  put(results.est.taupi, p, taupi);
  put(results.est.taubeta, b, taubeta);
  put(results.errors.taupi, p, taupierrors);
  put(results.errors.taubeta, b, taubetaerrors);
  if (sigma2error != nullptr)
    *sigma2error = results.errors.known && results.fixsigma2 == 0.0 && results.kind == PassKind::linear
                       ? known(results.errors.sigma2)
                       : absent;
  return KDR3_OK;
}

kdr3_status kdr3_result_effects(const kdr3_result* result, double* level2, double* level3) {
  if (result == nullptr) return error("The result is missing.");
  if (result->level2.empty()) return error("A non-linear model hands out no random effects yet.");
  if (level2 != nullptr) std::ranges::copy(result->level2, level2);
  if (level3 != nullptr) std::ranges::copy(result->level3, level3);
  return KDR3_OK;
}

const char* kdr3_result_warning(const kdr3_result* result, size_t i) {
  return result != nullptr && i < result->warnings.size() ? result->warnings[i].c_str() : nullptr;
}

void kdr3_result_free(kdr3_result* result) { delete result; }
