// A fit of a model of the C interface, its phases collected into the results document.
#include <cmath>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>

#include "core/evaluationcost.h"
#include "core/failure.h"
#include "core/formatted.h"
#include "core/modelwalk.h"
#include "document/resultsdocument.h"
#include "estimate/bootstrap/chainbootstrap.h"
#include "estimate/bootstrap/linearbootstrap.h"
#include "estimate/inference/convergence.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/linearrun.h"
#include "estimate/linear/weights.h"
#include "estimate/quasi/categories.h"
#include "estimate/quasi/categoryloop.h"
#include "estimate/quasi/macroloop.h"
#include "kernel/sizes.h"
#include "library/result.h"
#include "library/values.h"
#include "series/latentregression.h"

namespace kdr::library {

namespace {

void listen(const kdr3_observer* observer, Observer& listener) {
  if (observer == nullptr || observer->size < offsetof(kdr3_observer, abandon)) return;
  void* state = observer->state;
  if (auto* stop = observer->stop) listener.interrupted = [stop, state] { return stop(state) != 0; };
  if (observer->size >= sizeof(kdr3_observer))
    if (auto* abandon = observer->abandon) listener.poll = [abandon, state] { return abandon(state) != 0; };
  auto* progress = observer->progress;
  if (progress == nullptr) return;
  listener.iteration = [progress, state](const IterationEvent& event) {
    const std::string macro = event.macro > 0 ? formatted("macro iteration %d, ", event.macro) : "";
    progress(state,
             formatted("%siteration %d, log-likelihood %.6f", macro.c_str(), event.iteration, event.loglik).c_str());
  };
  listener.engine = [progress, state](Engine, const EngineEvent& event) {
    if (event.kind == EngineEvent::Kind::heavy)
      progress(state, longevaluationwords(event.number, event.seconds).c_str());
  };
}

// A fit on its way.
struct Fit {
  const kdr3_model& given;
  Values& values;
  kdr3_result& result;
  Subject subject;
  ResultsDocument document;
  std::function<void(int done)> tell;  // of replicates
  Failure failure;                     // of what was asked of a pass while it stood
  std::string separated;               // what is known of separation, in sentences
};

Subject subjectof(const kdr3_model& given, const Values& values) {
  const MdmData& mdm = values.mdm;
  Subject subject{values.model, given.data->names[0][at(given.outcome)]};
  for (std::size_t level = 0; level < 3; ++level) {
    subject.names[level] = given.data->names[level];
    subject.names[level][0] = formatted("INTRCPT%zu", level + 1);
  }
  for (std::size_t v = subject.names[0].size(); v < mdm.names1.size(); ++v)  // thresholds
    subject.names[0].push_back(leftname(mdm.names1[v]));
  subject.records = mdm.nunits1;
  subject.recordsread = mdm.numl1rec;
  subject.units2 = mdm.nunits2;
  subject.units3 = mdm.nunits3;
  subject.twolevel = mdm.twolevel();
  return subject;
}

// Design weights: what multiplies the columns of Z1 and Z2 makes of a row of posteriors those of the records.
void scaleback(Array<double>& means, Array<double>& covariances, std::size_t n, const Array<double>& weights) {
  for (std::size_t j = 0; n > 0 && j < means.size() / n; ++j) {
    for (std::size_t i = 0; i < n; ++i) means[j * n + i] /= std::sqrt(weights[j]);
    for (std::size_t i = 0; i < n * n; ++i) covariances[j * n * n + i] /= weights[j];
  }
}

// What the weights are within each unit. Those of a pass are products over the levels, each to a mean of 1: but for a
// factor the own weights of the level. In data of two levels the unit is the highest one.
void takeweights(kdr3_result& result, const DesignWeights& weights, bool engine) {
  const bool two = result.counts.units3 == 0;
  result.weights1 = weights.own1.copy();
  result.weights2 = (two ? (engine ? weights.own3 : weights.weight2) : weights.own2).copy();
  if (!two) result.weights3 = (engine ? weights.own3 : weights.weight3).copy();
  if (engine) return;
  for (double& weight : result.weights1) weight *= weights.weight1[0] / (weights.weight2[0] * weights.own1[0]);
  if (two) return;
  for (double& weight : result.weights2) weight *= weights.weight2[0] / (weights.weight3[0] * weights.own2[0]);
}

// The posteriors of a pass that stands.
void takeeffects(Fit& fit, Pass& pass) {
  Posteriors& made = fit.result.posteriors = posteriors(pass);
  fit.failure = storefailure(pass.store);
  if (!pass.model().weighted) return;
  scaleback(made.u, made.uvariance, at(pass.p), pass.weights().weight2);
  scaleback(made.v, made.vvariance, at(pass.b), pass.weights().weight3);
}

// A warning as a sentence: it is called one by where it stands.
std::string unmarked(const std::string& warning) {
  constexpr std::string_view mark = "WARNING: ";
  return warning.starts_with(mark) ? warning.substr(mark.size()) : warning;
}

void takeseparation(Fit& fit, const Separation& found) {
  fit.separated.clear();
  for (const std::string& warning : found.warnings) {
    if (!fit.separated.empty()) fit.separated += '\n';
    fit.separated += unmarked(warning);
  }
}

// Why there is no result. A failure of the engines behind separation has no words of its own.
std::string whynot(const Fit& fit, const Failure& failure) {
  if (failure.row == abandoned) return "The fit was stopped.";
  std::string sentence = sentenceof(failure);
  if (fit.separated.empty()) return sentence;
  return fit.separated + (sentence.empty() ? "" : "\n") + sentence;
}

void collectphases(Fit& fit, Observer& observer) {
  observer.dataread = [&fit](PassKind, int records) { fit.subject.records = records; };
  observer.recordsread = [&fit](const RecordsHash& hash) { fit.subject.hash = hash; };
  observer.leastsquares = [&fit](const LeastSquaresResults& results) { addphase(fit.document, fit.subject, results); };
  observer.passstands = [&fit](const ChainPass& pass) { addphase(fit.document, fit.subject, pass.results); };
  observer.separation = [&fit](const Separation& found) { takeseparation(fit, found); };
  observer.macroends = [&fit](const MacroEvent& event) {
    addmacroend(fit.document, event);
    takeseparation(fit, event.separation);
  };
  observer.phasecloses = [&fit](const ChainPass& pass) { takeeffects(fit, pass.pass); };
  observer.enginestands = [&fit](const EngineStage& stage) { addengine(fit.document, fit.subject, stage, false); };
}

void warn(kdr3_result& result, const std::vector<std::string>& warnings) {
  result.warnings.insert(result.warnings.end(), warnings.begin(), warnings.end());
}

BootstrapRequest requestof(Fit& fit, const Analysis& analysis) {
  const kdr3_model::Bootstrap& asked = fit.given.bootstrap;
  BootstrapRequest request{asked.replicates, asked.seed, asked.cases, analysis.threads, {}, {}, &fit.result.replicates};
  const Observer& observer = analysis.observer;
  request.stops = [&observer] { return observer.givesup() || (observer.interrupted && observer.interrupted()); };
  if (observer.iteration) request.progress = [&fit](int done) { fit.tell(done); };
  return request;
}

// The intervals of a bootstrap, and what is wrong with it.
void takebootstrap(Fit& fit, const BootstrapResults& made, const char* phase) {
  addbootstrap(fit.document, fit.subject, phase, made);
  if (2 * made.failed > made.tried || made.tried < made.asked)
    fit.result.warnings.push_back(
        formatted("Of %d replicates of the bootstrap %d were tried, and %d had no fit that converged.", made.asked,
                  made.tried, made.failed));
  fit.result.replicatestried = made.tried;
}

Failure linearfit(Fit& fit, const Analysis& analysis) {
  LinearFit linear;
  if (Failure failure = fitlinear(analysis, linear)) return failure;
  addphase(fit.document, fit.subject, linear.results);
  if (fit.given.bootstrap.replicates > 0) {
    BootstrapResults made;
    const Criterion criterion = linear.results.restricted ? Criterion::restricted : Criterion::full;
    if (Failure failure = bootstraplinear(linear.pass, linear.results.est, criterion, requestof(fit, analysis), made))
      return failure;
    takebootstrap(fit, made, "final");
  }
  warn(fit.result, linear.results.warnings);
  takeeffects(fit, linear.pass);
  fit.result.counts = countsof(linear.pass);
  fit.result.results = std::move(linear.results);
  return std::move(fit.failure);
}

Failure chainfit(Fit& fit, const Analysis& analysis) {
  ChainFit chain(analysis);
  kdr3_result& result = fit.result;
  if (analysis.model.outcome.categorical()) {
    CategoryTable table;
    if (Failure failure = readcategories(analysis, table)) return failure;
    Array<Name>& labels = fit.values.model.categorylabel;  // by which warnings name a category
    labels = categorylabels(table.value.data(), analysis.model.outcome.categories);
    for (const Name& label : labels) fit.subject.categories.emplace_back(label.text);
    if (Failure failure = fitcategories(table, chain)) return failure;
  } else if (Failure failure = fitnonlinear(chain)) {
    return failure;
  }
  if (fit.failure) return std::move(fit.failure);
  MacroState& state = chain.state;
  result.counts = countsof(chain.pass);
  if (state.posteriors) result.posteriors = std::move(state.posteriors->effects.random);
  warn(result, state.unitspecific.warnings);
  state.unitspecific.ending = endingof(state.end, state.unitspecific.ending);
  const bool quadrature = state.quadrature.has_value(), engine = quadrature || state.laplace6.has_value();
  if ((analysis.control.laplace || analysis.control.agqpoints != 0) && !engine)
    result.warnings.emplace_back("The engine has no results: these are those of quasi-likelihood.");
  if (fit.given.bootstrap.replicates > 0) {
    BootstrapResults made;
    const PassResults& last = quadrature ? *state.quadrature : engine ? *state.laplace6 : state.unitspecific;
    if (Failure failure = bootstrapchain(chain, last.est, requestof(fit, analysis), made)) return failure;
    takebootstrap(fit, made, quadrature ? "quadrature" : engine ? "laplace6" : "pql");
  }
  result.results = std::move(quadrature ? *state.quadrature : engine ? *state.laplace6 : state.unitspecific);
  if (engine) warn(result, result.results.warnings);
  return {};
}

// The latent variable regression of the estimates that the run ends with.
void takelatent(Fit& fit, const Analysis& analysis) {
  if (fit.given.latent.empty()) return;
  const LatentModel model = latentmodel(modelrows(analysis.model), fit.given.latent, analysis.mdm.nunits3);
  addlatent(fit.document, fit.subject, fit.result.results, latentregression(model, fit.result.results));
}

std::string checkstart(const Estimates& start, const Model& model) {
  if (!model.outcome.linear()) return "Starting values are for normal outcomes.";
  const bool fits = start.gammahat.size() == at(model.coef.ngamma) && start.taupi.size() == square(model.coef.ntaupi) &&
                    start.taubeta.size() == square(model.coef.ntaubeta);
  return fits ? ""
              : formatted("The starting values are not those of %d fixed effects and of %d and %d random ones.",
                          model.coef.ngamma, model.coef.ntaupi, model.coef.ntaubeta);
}

// The names of the fixed effects: their variables of the three levels, intercepts behind others left out.
std::vector<std::string> namesof(const kdr3_model& model, const Model& made) {
  const std::vector<std::string>(&names)[3] = model.data->names;
  std::vector<std::string> list;
  const ModelRows rows = modelrows(made);
  for (const EffectRow& effect : rows.effects) {
    if (effect.removed) continue;
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

std::string endingwords(Ending ending) {
  switch (ending) {
    case Ending::converged:
    case Ending::nomaximum:  // a warning of the engine tells
      return "";
    case Ending::keyboard:
      return "The iterations were stopped before they had converged.";
    case Ending::lost:
      return "The iterations stopped, but the search for the maximum that they are near has failed.";
    case Ending::limit:
      break;
  }
  return "The iterations reached their limit before they had converged.";
}

// The warnings of the whole and the document, from what has been collected.
void finish(const Fit& fit) {
  kdr3_result& result = fit.result;
  result.converged = fit.document.converged;
  std::vector<std::string> warnings;
  if (std::string words = endingwords(result.results.ending); !words.empty()) warnings.push_back(std::move(words));
  warnings.insert(warnings.end(), fit.document.warnings.begin(), fit.document.warnings.end());
  result.warnings.insert(result.warnings.begin(), warnings.begin(), warnings.end());
  for (std::string& warning : result.warnings) warning = unmarked(warning);
  DocumentFrame frame;
  frame.mdmfile = fit.given.data->mdm.path;
  frame.converged = fit.document.converged;
  const Json whole = wholedocument(fit.document, fit.subject, frame);
  result.json = documenttext(whole, false);
  result.table = documenttext(whole, true);
}

}  // namespace

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

int kdr3_raised(void* flag) { return flag != nullptr && *static_cast<volatile int*>(flag) != 0 ? 1 : 0; }

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
    analysis.wanted.leastsquares = analysis.wanted.posteriors = analysis.wanted.curves = true;
    if (model->start) {
      if (std::string words = checkstart(*model->start, values.model); !words.empty()) return error(words);
      analysis.start = &*model->start;
    }
    if (model->bootstrap.replicates > 0)
      if (std::string words = bootstrapobstacle(values.model, values.control, model->bootstrap.cases); !words.empty())
        return error(words);

    auto result = std::make_unique<kdr3_result>();
    Fit fit{*model, values, *result, subjectof(*model, values), {}, {}, {}, {}};
    if (observer != nullptr && values.observer.iteration)
      fit.tell = [observer, count = model->bootstrap.replicates](int done) {
        observer->progress(observer->state, formatted("replicate %d of %d", done, count).c_str());
      };
    collectphases(fit, values.observer);
    const Failure failure = values.model.outcome.linear() ? linearfit(fit, analysis) : chainfit(fit, analysis);
    if (failure) return error(whynot(fit, failure));
    takelatent(fit, analysis);
    if (values.model.weighted) takeweights(*result, values.weights, result->results.kind == PassKind::quadrature);
    result->p = values.model.coef.ntaupi;
    result->b = values.model.coef.ntaubeta;
    result->g = result->results.est.gammahat.size();
    result->names = namesof(*model, values.model);
    finish(fit);
    *made = result.release();
    return (*made)->warnings.empty() ? KDR3_OK : KDR3_WARNING;
  });
}
