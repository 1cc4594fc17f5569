#include "document/resultsdocument.h"

#include <cmath>
#include <string_view>
#include <utility>

#include "core/formatted.h"
#include "core/version.h"
#include "document/effects.h"
#include "document/latent.h"
#include "document/resultstable.h"
#include "document/variances.h"
#include "estimate/inference/convergence.h"
#include "estimate/quasi/macrocontrol.h"

namespace kdr {

namespace {

// Likelihood.

// Deviance and criteria; nulls where the likelihood is that of no model of the outcome.
// The criteria are made of the marginal log-likelihood where there is one.
// Those of a pseudo-likelihood are no criteria.
void addlikelihood(Json& phase, const Subject& subject, std::optional<double> loglik, bool comparable,
                   long long parameters, std::optional<double> marginal = {}, bool pseudo = false) {
  const double deviance = -2.0 * loglik.value_or(absent);
  const bool has = comparable && std::isfinite(deviance);
  const InformationCriteria criteria =
      informationcriteria((marginal ? marginal : loglik).value_or(absent), parameters, subject.records);
  phase["log_likelihood"] = number(loglik);
  phase["deviance"] = whenever(has, deviance);
  phase["parameters"] = parameters;
  phase["aic"] = whenever(has && !pseudo, criteria.aic);
  phase["bic"] = whenever(has && !pseudo, criteria.bic);
  phase["bic_sample_size"] = whenever(has && !pseudo, subject.records);
  Json comparison;
  if (has && subject.alternative) {
    DevianceComparison made = comparisonof(deviance, parameters, *subject.alternative, subject.model, subject.twolevel);
    if (pseudo) made.impossible = pseudocomparison;
    const bool possible = made.impossible.empty();
    addtest(comparison, made.chisquare);
    comparison["p"] = whenever(possible, comparison["p"]);
    comparison["mixture_p"] = whenever(possible && made.mixture, number(made.mixturep));
    comparison["impossible"] = textornull(made.impossible);
  }
  phase["model_comparison"] = std::move(comparison);
}

// Phases.

const char* phasename(PassKind kind, bool heterogeneous = false) {
  switch (kind) {
    case PassKind::linear:
      return heterogeneous ? "heterogeneous" : "final";
    case PassKind::identity:
      return "identity";
    case PassKind::pql:
    case PassKind::categories:
      return "pql";
    case PassKind::populationaverage:
      return "population_average";
    case PassKind::laplace6:
      return "laplace6";
    default:
      return "quadrature";
  }
}

const char* endingname(Ending ending) {
  switch (ending) {
    case Ending::converged:
      return "converged";
    case Ending::limit:
      return "limit";
    case Ending::keyboard:
      return "keyboard";
    case Ending::lost:
      return "lost";
    case Ending::nomaximum:
      return "no_maximum";
  }
  return "";
}

bool isengine(const PassResults& results) {
  return results.kind == PassKind::laplace6 || results.kind == PassKind::quadrature;
}

std::string fewunits(const Subject& subject) {
  return std::string("The robust standard errors are for data with a larger number of level-") +
         (subject.twolevel ? "2" : "3") + " units.";
}
constexpr const char* norobust = "The robust standard errors cannot be computed for this model.";

Json warningsof(const Subject& subject, const PassResults& results) {
  Json warnings = Json::array();
  for (const std::string& warning : results.warnings) warnings.push_back(warning);
  if (results.errors.asked && !results.errors.known && !results.tausstand())
    warnings.push_back("Standard errors of the variance components are not computable.");
  const bool hasrobust = results.kind != PassKind::identity && !results.heterogeneous &&
                         (!isengine(results) || (results.robusterrors.asked && !results.weighted));
  if (hasrobust && results.robust.empty()) warnings.push_back(norobust);
  if (hasrobust && !results.robust.empty() && results.fewunits) warnings.push_back(fewunits(subject));
  return warnings;
}

void addpoints(Json& phase, const PassResults& results) {
  const QuadraturePoints& made = results.quadrature;
  phase["points"] = made.points;
  phase["check"] = made.next == 0 ? Json()
                                  : Json{{"points", made.next},
                                         {"log_likelihood_change", number(made.change)},
                                         {"largest_standard_error_change", number(made.errorchange)}};
}

void addedges(Json& phase, const Subject& subject, const TauErrors& errors) {
  const Coefficients& coef = subject.model.coef;
  phase["tau_pi"]["at_edge"] = edges(coef.ntaupi, errors.edgepi);
  if (!subject.twolevel) phase["tau_beta"]["at_edge"] = edges(coef.ntaubeta, errors.edgebeta);
}

// Of engines: the standard errors of the taus by the sandwich, and whether the others are those, too.
void addrobusterrors(Json& phase, const Subject& subject, const PassResults& results) {
  const Coefficients& coef = subject.model.coef;
  const TauErrors& errors = results.robusterrors;
  const auto add = [&](const char* name, int n, const Array<double>& values) {
    phase[name]["robust_standard_error"] = errors.known ? square(n, values) : Json();
  };
  add("tau_pi", coef.ntaupi, errors.taupi);
  if (!subject.twolevel) add("tau_beta", coef.ntaubeta, errors.taubeta);
  phase["weighted"] = results.weighted;
}

void addvariances(Json& phase, const Subject& subject, const PassResults& results) {
  const Model& model = subject.model;
  const bool stand = results.tausstand(), errors = results.errors.known, linear = model.outcome.linear();
  const Estimates& est = results.est;
  const Reliabilities& rel = results.reliabilities;
  const bool held = results.fixsigma2 != 0.0, heldbyvariable = linear && model.autovknown != 0;
  phase["sigma2"] =
      isengine(results) ? Json() : sigma2of(heldbyvariable ? absent : est.sigma2, held, errors, results.errors.sigma2);
  phase["tau_pi"] = stand || results.heterogeneous
                        ? Json()
                        : taumatrix(subject, Tau::pi,
                                    {model.coef.ntaupi, &est.taupi, errors ? &results.errors.taupi : nullptr,
                                     &rel.level2, rel.units2});
  phase["tau_beta"] =
      stand || subject.twolevel
          ? Json()
          : taumatrix(subject, Tau::beta,
                      {model.coef.ntaubeta, &est.taubeta,
                       errors && !results.heterogeneous ? &results.errors.taubeta : nullptr, &rel.level3, rel.units3});
  const bool tested = !stand && !isengine(results) && results.kind != PassKind::identity && !results.heterogeneous;
  phase["variance_tests"] = tested ? variancetests(subject, est.taupi, est.taubeta, results.tests) : Json();
}

// A phase takes the place of an earlier one of its name.
void place(ResultsDocument& document, Json phase) {
  std::erase_if(document.phases, [&](const Json& earlier) { return earlier["phase"] == phase["phase"]; });
  document.phases.push_back(std::move(phase));
}

// A phase with all its keys, nulls but for these.
Json emptyphase(const char* name, Json ending, Json converged) {
  Json phase{{"phase", name},
             {"macro_iteration", nullptr},
             {"iterations", nullptr},
             {"ending", std::move(ending)},
             {"converged", std::move(converged)}};
  for (const char* key :
       {"log_likelihood", "deviance", "parameters", "aic", "bic", "bic_sample_size", "model_comparison",
        "marginal_log_likelihood", "sigma2", "tau_pi", "tau_beta", "variance_tests", "intraclass_correlation"})
    phase[key] = nullptr;
  return phase;
}

// Covariances of the fixed effects (g squared; empty: not known).
void addcovariances(Json& phase, std::size_t g, const Array<double>& model, const Array<double>& robust) {
  phase["covariance"] = square(static_cast<int>(g), model);
  phase["robust_covariance"] = square(static_cast<int>(g), robust);
}

Json phaseof(const Subject& subject, const PassResults& results) {
  Json phase = emptyphase(phasename(results.kind, results.heterogeneous), endingname(results.ending),
                          results.ending == Ending::converged);
  phase["macro_iteration"] = whenever(results.macro != 0, results.macro);
  phase["iterations"] = results.iteration;
  addlikelihood(phase, subject, results.loglik, results.kind == PassKind::linear || isengine(results),
                results.parameters, results.marginal, results.weighted);
  if (results.restricted) phase["likelihood"] = "restricted";
  if (results.degrees.method != DegreesMethod::counts)
    phase["degrees_of_freedom"] =
        results.degrees.method == DegreesMethod::satterthwaite ? "satterthwaite" : "kenward-roger";
  phase["marginal_log_likelihood"] = number(results.marginal);
  addvariances(phase, subject, results);
  if (!results.heterogeneous && results.kind == PassKind::linear)
    phase["intraclass_correlation"] = intraclass(subject, results.est.sigma2, results.est.taupi, results.est.taubeta);
  const int p = subject.model.coef.ntaupi, b = subject.model.coef.ntaubeta;
  if (!results.intervals.level2.empty() || !results.intervals.level3.empty())
    phase["variance_intervals"] = intervalsof(results.intervals, p, b);
  if (results.shares.made) phase["variance_shares"] = sharesof(results.shares, subject.twolevel);
  if (results.profile.made) phase["profile_intervals"] = profileof(results.profile, p, b);
  addeffects(phase, subject, results.est.gammahat, results.effects, results.robusteffects,
             results.kind != PassKind::identity);
  addcovariances(phase, results.est.gammahat.size(), results.covariance, results.robust);
  if (isengine(results))
    phase["joint_covariance"] =
        square(static_cast<int>(std::lround(std::sqrt(static_cast<double>(results.joint.size())))), results.joint);
  phase["warnings"] = warningsof(subject, results);
  for (const std::string& note : results.notes) phase["warnings"].push_back(note);
  if (results.kind == PassKind::quadrature) addpoints(phase, results);
  if (isengine(results)) addedges(phase, subject, results.errors);
  if (isengine(results)) addrobusterrors(phase, subject, results);
  return phase;
}

Json averagedphase(const Subject& subject, const char* name, const PooledEffects& effects) {
  Json phase = emptyphase(name, nullptr, nullptr);
  addeffects(phase, subject, effects.gamma, effects.model.effects, effects.robust.effects, true);
  addcovariances(phase, effects.gamma.size(), effects.model.covariance, effects.robust.covariance);
  phase["warnings"] = Json::array();
  if (!effects.robust.known) phase["warnings"].push_back(norobust);
  return phase;
}

// A warning about the end of what was added last, if there are words.
void warnofend(ResultsDocument& document, const std::string& words) {
  if (words.empty()) return;
  document.converged = false;
  document.warnings.push_back(words);
}

// What is known of the phase that was added last, where its pass alone does not tell. `unless`: how it ended if the
// pass converged, and the phase has not.
void settle(ResultsDocument& document, bool converged, const char* unless = endingname(Ending::limit)) {
  if (document.phases.empty()) return;
  Json& phase = document.phases.back();
  phase["converged"] = converged;
  if (converged || phase["ending"] == endingname(Ending::converged))
    phase["ending"] = converged ? endingname(Ending::converged) : unless;
}

// The last phase has effects without finite estimates.
void separate(ResultsDocument& document) {
  settle(document, false);
  if (!document.phases.empty()) document.phases.back()["ending"] = "separation";
}

void setlatent(ResultsDocument& document, const Subject& subject, std::string_view phase,
               const LatentRegression& regression) {
  for (Json& made : document.phases)
    if (made["phase"] == phase) made["latent_regression"] = latentof(subject, regression);
  if (!regression.computable) document.warnings.emplace_back(nolatentregression);
}

Json allwarnings(const ResultsDocument& document, const Model& model, const Json& converged) {
  Json warnings = document.warnings;
  for (const Json& phase : document.phases) {
    const std::string name = phase["phase"];
    bool told = false;  // by a warning of its own
    for (const std::string words : phase["warnings"]) {
      constexpr std::string_view mark = "WARNING: ";
      if (!words.starts_with(mark)) continue;
      warnings.push_back("Phase " + name + ": " + words.substr(mark.size()));
      told = true;
    }
    if (converged == false && !told && phase["converged"] == false && name != "identity" &&
        !(name == "population_average" && model.restrictions.fixsigma2))
      warnings.push_back("The iterations of the phase " + name + " were stopped prior to convergence.");
  }
  for (const Json& phase : document.phases)
    if (const Json& compared = phase["model_comparison"]; !compared.is_null() && !compared["impossible"].is_null())
      warnings.push_back("The models of DEVIANCE: cannot be compared. " + compared["impossible"].get<std::string>());
  return warnings;
}

Json hexadecimal(std::uint64_t hash) { return formatted("%016llx", static_cast<unsigned long long>(hash)); }

// Of the variables by whose values a model may be another one though its names are the same.
Json variablehashes(const Subject& subject) {
  if (!subject.hash) return {};
  Json list = Json::array();
  for (const auto& [level, variable, sum] : subject.hash->variables)
    list.push_back({{"level", level}, {"name", subject.name(level, variable)}, {"hash", hexadecimal(sum)}});
  return list;
}

}  // namespace

void addphase(ResultsDocument& document, const Subject& subject, const PassResults& results) {
  place(document, phaseof(subject, results));
  if (endedearly(results)) document.converged = false;
  if (results.kind == PassKind::linear) warnofend(document, unsettledwords(results));
  if (results.tausstand() && document.separated) separate(document);
  warnofend(document, unsettledaverage(results));
}

void addphase(ResultsDocument& document, const Subject& subject, const PassResults& results, const Array<double>& mean,
              const Array<double>& weighted) {
  Json phase = phaseof(subject, results);
  phase["tau_pi_average"] = square(subject.model.coef.ntaupi, mean);
  phase["tau_pi_weighted_average"] = square(subject.model.coef.ntaupi, weighted);
  place(document, std::move(phase));
}

void addphase(ResultsDocument& document, const Subject& subject, const LeastSquaresResults& results) {
  Json phase = emptyphase("least_squares", nullptr, true);
  addlikelihood(phase, subject, results.loglik, true, results.parameters);
  phase["model_comparison"] = nullptr;
  phase["sigma2"] = sigma2of(results.sigma2, false, false, 0.0);
  addeffects(phase, subject, results.gamma, results.effects, results.robusteffects, false);
  Array<double> covariance = results.vgamma.copy();
  for (double& v : covariance) v *= results.sigma2;
  addcovariances(phase, results.gamma.size(), covariance, results.robust);
  phase["warnings"] = Json::array();
  if (results.robust.empty()) {
    phase["warnings"].push_back(norobust);
  } else if (results.fewunits) {
    phase["warnings"].push_back(fewunits(subject));
  }
  place(document, std::move(phase));
}

void addphases(ResultsDocument& document, const Subject& subject, const Pooled& pooled) {
  Json phase = averagedphase(subject, "average", pooled.effects);
  const int q = static_cast<int>(pooled.reliability2.size()), r = static_cast<int>(pooled.reliability3.size());
  phase["subruns"] = pooled.M;
  phase["estimates_of"] = pooled.engine ? Json(phasename(*pooled.engine)) : Json();
  phase["sigma2"] = sigma2of(pooled.sigma2, pooled.sigma2fixed, pooled.errorsknown, pooled.sigma2error);
  phase["tau_pi"] = taumatrix(
      subject, Tau::pi,
      {q, &pooled.taupi, pooled.errorsknown ? &pooled.taupierrors : nullptr, &pooled.reliability2, pooled.units2});
  if (!subject.twolevel)
    phase["tau_beta"] = taumatrix(subject, Tau::beta,
                                  {r, &pooled.taubeta, pooled.errorsknown ? &pooled.taubetaerrors : nullptr,
                                   &pooled.reliability3, pooled.units3});
  if (!pooled.engine) phase["variance_tests"] = variancetests(subject, pooled.taupi, pooled.taubeta, pooled.tests);
  phase["intraclass_correlation"] = intraclass(subject, pooled.sigma2, pooled.taupi, pooled.taubeta);
  place(document, std::move(phase));
  if (pooled.popaverage.gamma.empty()) return;
  Json average = averagedphase(subject, "average_population_average", pooled.popaverage);
  average["subruns"] = pooled.M;
  place(document, std::move(average));
}

void addengine(ResultsDocument& document, const Subject& subject, const EngineStage& stage, bool fixednodes) {
  const bool laplace = stage.engine == Engine::laplace6, estimated = stage.fit.end == EngineEnd::estimated;
  if (endedearly(stage, fixednodes)) document.converged = false;
  if (estimated && (!laplace || stage.takenover)) addphase(document, subject, stage.results);
  if (laplace) {
    if (estimated && stage.takenover && stage.separated) separate(document);
    if (!stage.takenover && fixednodes)
      document.warnings.emplace_back(
          "Fisher scoring is unable to compute a Laplace-6 estimate within the parameter space.");
    if (!stage.takenover && !fixednodes)
      document.warnings.insert(document.warnings.end(), stage.fit.warnings.begin(), stage.fit.warnings.end());
    return;
  }
  if (!estimated) {
    if (stage.fit.failure != EngineFailure::none)
      document.warnings.push_back(problemwords(stage.engine, stage.fit.failure));
    document.warnings.insert(document.warnings.end(), stage.fit.warnings.begin(), stage.fit.warnings.end());
  }
  document.warnings.insert(document.warnings.end(), stage.behind.begin(), stage.behind.end());
  if (estimated && (!stage.takenover || doubtful(stage, fixednodes))) settle(document, false, "doubtful");
  if (estimated && stage.separated) separate(document);
}

void addlatent(ResultsDocument& document, const Subject& subject, const PassResults& results,
               const LatentRegression& regression) {
  setlatent(document, subject, phasename(results.kind, results.heterogeneous), regression);
}

void addlatent(ResultsDocument& document, const Subject& subject, const Pooled& /*averages*/,
               const LatentRegression& regression) {
  setlatent(document, subject, "average", regression);
}

void addbootstrap(ResultsDocument& document, const Subject& subject, const char* phase,
                  const BootstrapResults& results) {
  const int p = subject.model.coef.ntaupi, b = subject.model.coef.ntaubeta;
  for (Json& made : document.phases)
    if (made["phase"] == phase)
      made["bootstrap"] = {{"kind", results.cases ? subject.twolevel ? "level2_units" : "level3_units" : "parametric"},
                           {"seed", results.seed},
                           {"asked", results.asked},
                           {"replicates", results.tried},
                           {"failed", results.failed},
                           {"percentile", profileof(results.percentile, p, b)},
                           {"basic", profileof(results.basic, p, b)}};
}

void addrandomeffects(ResultsDocument& document, const Subject& subject, const char* phase,
                      const Posteriors& posteriors, const UnitNames& names) {
  const Coefficients& coef = subject.model.coef;
  const auto unit = [](int n, std::size_t i, const Array<double>& means, const Array<double>& covariances, Json& to) {
    Json mean = Json::array();
    for (std::size_t e = 0; e < at(n); ++e) mean.push_back(number(means[i * at(n) + e]));
    to["estimate"] = std::move(mean);
    to["covariance"] = square(n, [&](int a, int b) { return covariances[(i * at(n) + at(a)) * at(n) + at(b)]; });
  };
  Json level2 = Json::array(), level3 = Json::array();
  for (std::size_t j = 0; j < names.level2.size(); ++j) {
    if (names.empty[j] != 0) continue;
    Json row{{"level3", whenever(!subject.twolevel, names.level3[names.parent[j]])}, {"level2", names.level2[j]}};
    unit(coef.ntaupi, j, posteriors.u, posteriors.uvariance, row);
    level2.push_back(std::move(row));
  }
  for (std::size_t k = 0; k < names.level3.size() && !subject.twolevel; ++k) {
    Json row{{"level3", names.level3[k]}};
    unit(coef.ntaubeta, k, posteriors.v, posteriors.vvariance, row);
    level3.push_back(std::move(row));
  }
  for (Json& made : document.phases)
    if (made["phase"] == phase)
      made["random_effects"] = {{"level2", whenever(coef.ntaupi > 0, level2)},
                                {"level3", whenever(coef.ntaubeta > 0, level3)}};
}

void addmacroend(ResultsDocument& document, const MacroEvent& event) {
  if (event.failure != nullptr) {
    // What the last pass of quasi-likelihood had come to is no result.
    if (event.end == MacroEnd::failed)
      std::erase_if(document.phases, [](const Json& phase) { return phase["phase"] == "pql"; });
    document.converged = false;
    document.warnings.push_back(failedwords(event));
    return;
  }
  if (event.results.kind != PassKind::identity) settle(document, event.end != MacroEnd::goeson && !endedearly(event));
  if (event.end == MacroEnd::goeson) return;
  if (endedearly(event)) document.converged = false;
  if (event.end == MacroEnd::lost && !document.phases.empty())
    document.phases.back()["ending"] = endingname(Ending::lost);
  document.separated = event.separation.known();
  if (document.separated) separate(document);
  document.warnings.insert(document.warnings.end(), event.separation.warnings.begin(), event.separation.warnings.end());
  warnofend(document, unsettledwords(event.results));
}

Json wholedocument(const ResultsDocument& document, const Subject& subject, const DocumentFrame& frame) {
  Json whole = {{"format", "kdr3 results"},
                {"format_version", 5},
                {"program", module},
                {"version", version},
                {"title", frame.title},
                {"data", {{"mdm_file", textornull(frame.mdmfile)}, {"command_file", textornull(frame.commandfile)}}},
                {"dimensions",
                 {{"records", subject.records},
                  {"level2_units", subject.units2},
                  {"level3_units", whenever(!subject.twolevel, subject.units3)}}},
                {"records_hash", subject.hash ? hexadecimal(subject.hash->sum) : Json()},
                {"variable_hashes", variablehashes(subject)},
                {"model", describedmodel(subject)},
                {"coding", frame.coding},
                {"series", frame.series},
                {"converged", frame.converged},
                {"phases", document.phases},
                {"warnings", allwarnings(document, subject.model, frame.converged)},
                {"files", frame.files},
                {"checksums", frame.checksums}};
  if (subject.recordsread != 0) whole["dimensions"]["records_read"] = subject.recordsread;
  if (subject.texts != nullptr && subject.texts->any()) whole["variables"] = describedvariables(subject);
  return whole;
}

std::string documenttext(const Json& whole, bool table) {
  return table ? resultstable(whole) : whole.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace kdr
