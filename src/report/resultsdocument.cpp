#include "report/resultsdocument.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "driver/failures.h"
#include "driver/files.h"
#include "driver/reportstream.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "estimate/inference/modelstatistics.h"
#include "estimate/inference/teststatistics.h"
#include "kernel/sizes.h"
#include "report/averagedreport.h"
#include "report/modelrows.h"
#include "report/resultsphases.h"
#include "report/resultstable.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

using Json = nlohmann::ordered_json;

// Nothing is allocated before the run has begun, which is when exhausted memory gets its words.
struct Document {
  Json phases, warnings, failed;
  bool averages = false;
};
Document document;

// What a document and a table begin with.
constexpr char documenthead[] = "{\n \"format\": \"kdr3 results\"";
constexpr char tablehead[] = "phase,part,";

bool wanted() { return !run.files.results.empty(); }

// Numbers and texts.

// Null for a value that could not be computed.
Json number(double value) { return std::isfinite(value) && value != missingcode ? Json(value) : Json(); }

Json whenever(bool known, Json value) { return known ? std::move(value) : Json(); }

Json textornull(const std::string& text) { return text.empty() ? Json() : Json(text); }

Json bounds(const Interval& interval) {
  return interval.known ? Json::array({number(interval.low), number(interval.high)}) : Json();
}

Json square(int n, const auto& element) {
  Json rows = Json::array();
  for (int i = 0; i < n; ++i) {
    Json row = Json::array();
    for (int j = 0; j < n; ++j) row.push_back(number(element(i, j)));
    rows.push_back(std::move(row));
  }
  return rows;
}

Json square(int n, const Array<double>& matrix) {
  if (matrix.size() != at(n) * at(n)) return {};
  return square(n, [&](int i, int j) { return matrix[at(i) * at(n) + at(j)]; });
}

Json numbers(const Array<double>& values) {
  Json list = Json::array();
  for (const double value : values) list.push_back(number(value));
  return list;
}

// A chi-square test; of averages p is that of F, whose denominator has df2 degrees of freedom.
void addtest(Json& to, const ChiSquareTest& test) {
  to["chi_square"] = number(test.statistic);
  to["df"] = test.df;
  if (test.df2 > 0.0) to["df2"] = number(test.df2);
  to["p"] = number(test.p);
}

// The model.

Json nameornull(const Array<Name>& names, int v) { return v == 0 ? Json() : Json(leftname(names[v])); }

const char* centering(const Array<Centering>& marks, int v) {
  constexpr const char* words[] = {"none", "group mean", "grand mean"};
  return words[static_cast<int>(at(v) < marks.size() ? marks[v] : Centering::none)];
}

Json categoryornull(int set) { return multinomialrun() ? textornull(categorylabel(set)) : Json(); }

Json equations() {
  const ModelRows rows = modelrows(run.model);
  const std::vector<int> reduced = reducedeffects(rows);
  Json list = Json::array();
  for (const CoefficientRow& coefficient : rows.coefficients) {
    Json terms = Json::array();
    for (int t = coefficient.firstterm; t < coefficient.firstterm + coefficient.nterms; ++t) {
      const TermRow& term = rows.terms[at(t)];
      Json effects = Json::array();
      for (int g = term.firsteffect; g < term.firsteffect + term.neffects; ++g) {
        const EffectRow& effect = rows.effects[at(g)];
        effects.push_back({{"variable", leftname(run.mdm.names3[effect.variable])},
                           {"centering", centering(run.model.center3, effect.variable)},
                           {"subscript", effectdigits(rows, effect)},
                           {"fixed_effect", reduced[at(g)]},
                           {"constraint_group", effect.group}});
      }
      terms.push_back({{"variable", leftname(run.mdm.names2[term.variable])},
                       {"centering", centering(run.model.center2, term.variable)},
                       {"subscript", termdigits(rows, term)},
                       {"random", term.random},
                       {"effects", std::move(effects)}});
    }
    list.push_back({{"category", categoryornull(coefficient.set)},
                    {"variable", leftname(run.mdm.names1[coefficient.variable])},
                    {"centering", coefficient.threshold ? "none" : centering(run.model.center1, coefficient.variable)},
                    {"subscript", std::to_string(coefficient.subscript)},
                    {"threshold", coefficient.threshold},
                    {"random", coefficient.random},
                    {"terms", std::move(terms)}});
  }
  return list;
}

std::string distribution() {
  std::string name = nameof(run.model.outcome.family);
  name[0] = static_cast<char>(name[0] - 'A' + 'a');
  return name;
}

Json model() {
  Json categories = Json::array();
  if (run.model.outcome.categorical())
    for (int k = 0; k < run.model.outcome.categories; ++k) categories.push_back(categorylabel(k));
  constexpr const char* links[] = {"identity", "logit", "log", "multinomial logit", "cumulative logit"};
  return {
      {"outcome", leftname(run.model.outname)},
      {"distribution", distribution()},
      {"link", links[static_cast<int>(run.model.outcome.link())]},
      {"count_variable",
       run.model.outcome.counted ? nameornull(run.mdm.names1, run.model.outcome.countvariable.value_or(0)) : Json()},
      {"categories", std::move(categories)},
      {"equations", equations()},
      {"sigma2_held_at",
       whenever(run.model.restrictions.fixsigma2.has_value(), number(run.model.restrictions.fixsigma2.value_or(0.0)))},
      {"weights",
       {{"level1", nameornull(run.mdm.names1, run.model.wgtvar1)},
        {"level2", nameornull(run.mdm.names2, run.model.wgtvar2)},
        {"level3", nameornull(run.mdm.names3, run.model.wgtvar3)},
        {"known_variance", nameornull(run.mdm.names1, run.model.autovknown)}}}};
}

// Fixed effects.

Json tested(const EffectTest& row, const MissingShare* share, bool withratio) {
  Json test{{"standard_error", whenever(row.se != 0.0, number(row.se))},
            {"t", whenever(row.se != 0.0, number(row.t))},
            {"df", row.df},
            {"p", whenever(row.tested, number(row.p))},
            {"p_rough", row.rough},
            {"interval", bounds(row.interval)}};
  if (withratio) test["ratio_interval"] = bounds(row.ratiointerval);
  if (share == nullptr) return test;
  test["missing_information"] = number(share->fraction);
  test["relative_efficiency"] = number(share->efficiency);
  return test;
}

Json fixedeffects(const Array<double>& gamma, const EffectTable& model, const EffectTable& robust, bool withratio) {
  const ModelRows rows = modelrows(run.model);
  const auto side = [&](const EffectTable& table, std::size_t g) {
    if (table.rows.empty()) return Json();
    return tested(table.rows[g], table.shares.empty() ? nullptr : &table.shares[g], withratio);
  };
  Json list = Json::array();
  std::size_t g = 0;
  for (const EffectRow& effect : rows.effects) {
    if (effect.removed) continue;
    const CoefficientRow& owner = rows.owner(effect);
    Json row{{"category", categoryornull(owner.set)},
             {"level1", leftname(run.mdm.names1[owner.variable])},
             {"level2", leftname(run.mdm.names2[rows.termof(effect).variable])},
             {"level3", leftname(run.mdm.names3[effect.variable])},
             {"subscript", effectdigits(rows, effect)},
             {"threshold", owner.threshold},
             {"estimate", number(gamma[g])}};
    if (withratio) row["ratio"] = number(std::exp(gamma[g]));
    row["model_based"] = side(model, g);
    row["robust"] = side(robust, g);
    list.push_back(std::move(row));
    ++g;
  }
  return list;
}

void addhypotheses(Json& list, const char* name, const EffectTable& table) {
  for (const WaldTest& test : table.hypotheses) {
    Json contrasts = Json::array();
    for (int row = 0; row < test.r; ++row) {
      Json contrast = Json::array();
      for (int g = 0; g < test.n; ++g) contrast.push_back(number(test.C[row * test.n + g]));
      contrasts.push_back(std::move(contrast));
    }
    Json entry{{"number", test.number + 1},
               {"standard_errors_by", name},
               {"contrasts", std::move(contrasts)},
               {"estimates", test.computed ? numbers(test.estimates) : Json()},
               {"standard_errors", test.computed ? numbers(test.errors) : Json()}};
    if (test.computed) {
      addtest(entry, test.chisquare);
    } else {
      entry.update({{"chi_square", nullptr}, {"df", test.r}, {"p", nullptr}});
    }
    list.push_back(std::move(entry));
  }
}

// All that hangs on the fixed effects of a phase.
void addeffects(Json& phase, const Array<double>& gamma, const EffectTable& model, const EffectTable& robust,
                bool withratio) {
  phase["fixed_effects"] = fixedeffects(gamma, model, robust, withratio && !run.model.outcome.linear());
  Json tests = Json::array();
  addhypotheses(tests, "model_based", model);
  addhypotheses(tests, "robust", robust);
  phase["hypothesis_tests"] = std::move(tests);
}

// Variance components.

Json taurows(Tau which, int n) {
  const Coefficients& coef = run.model.coef;
  const ModelRows rows = modelrows(run.model);
  std::vector<int> sets;
  for (const CoefficientRow& row : rows.coefficients)
    if (which == Tau::pi && row.random) sets.push_back(row.set);
  for (const TermRow& row : rows.terms)
    if (which == Tau::beta && row.random) sets.push_back(rows.owner(row).set);
  sets.resize(at(n));
  Json list = Json::array();
  for (int i = 0; i < n; ++i) {
    const bool pi = which == Tau::pi;
    std::string digits = std::to_string(subscriptof(pi ? coef.pisubs : coef.betasubs1, i));
    if (!pi) digits += std::to_string(subscriptof(coef.betasubs2, i));
    list.push_back({{"category", categoryornull(sets[at(i)])},
                    {"level1", leftname(labelof(pi ? coef.pinames : coef.betanames1, i))},
                    {"level2", pi ? Json() : Json(leftname(labelof(coef.betanames2, i)))},
                    {"subscript", digits}});
  }
  return list;
}

// What a tau of a phase has; null pointers and empty arrays are not known.
struct TauParts {
  int n = 0;
  const Array<double>* tau = nullptr;
  const Array<double>* errors = nullptr;
  const Array<double>* reliabilities = nullptr;
  int reliabilityunits = 0;
};

Json taumatrix(Tau which, const TauParts& parts) {
  const double* tau = parts.tau->data();
  const auto correlation = [&](int i, int j) { return correlationof(tau, parts.n, i, j); };
  const bool reliable = parts.reliabilities != nullptr && parts.reliabilityunits > 0;
  return {{"rows", taurows(which, parts.n)},
          {"estimate", square(parts.n, *parts.tau)},
          {"standard_error", parts.errors == nullptr ? Json() : square(parts.n, *parts.errors)},
          {"correlation", square(parts.n, correlation)},
          {"reliability", reliable ? numbers(*parts.reliabilities) : Json()},
          {"reliability_units", whenever(reliable, parts.reliabilityunits)}};
}

Json sigma2of(double estimate, bool held, bool errorknown, double error) {
  return {
      {"estimate", number(estimate)}, {"standard_error", whenever(errorknown && !held, number(error))}, {"held", held}};
}

// The tests of the variances on a diagonal.
Json variancetests(const Array<double>& tau, std::span<const VarianceTest> tests) {
  Json list = Json::array();
  const std::size_t n = tests.size();
  for (std::size_t i = 0; i < n; ++i) {
    const double variance = std::max(0.0, tau[i * (n + 1)]);
    Json row{{"variance", number(variance)}, {"standard_deviation", number(std::sqrt(variance))}};
    if (tests[i].known) {
      addtest(row, tests[i].chisquare);
    } else {
      row.update({{"chi_square", nullptr}, {"df", nullptr}, {"p", nullptr}});
    }
    list.push_back(std::move(row));
  }
  return list;
}

// Likelihood.

// Deviance and criteria; nulls where the likelihood is that of no model of the outcome.
// The criteria are made of the marginal log-likelihood where there is one.
void addlikelihood(Json& phase, double loglik, bool comparable, long long parameters, double marginal = missingcode) {
  const double deviance = -2.0 * loglik, criterion = marginal == missingcode ? deviance : -2.0 * marginal;
  const bool has = comparable && loglik != missingcode && std::isfinite(deviance);
  const auto count = static_cast<double>(parameters);
  phase["log_likelihood"] = number(loglik);
  phase["deviance"] = whenever(has, deviance);
  phase["parameters"] = parameters;
  phase["aic"] = whenever(has, criterion + 2.0 * count);
  phase["bic"] = whenever(has, criterion + count * std::log(static_cast<double>(run.mdm.nunits1)));
  phase["bic_sample_size"] = whenever(has, run.mdm.nunits1);
  Json comparison;
  if (has && run.out.deviance) {
    const DevianceComparison made = comparisonof(deviance, parameters, {*run.out.deviance, run.out.df}, run.model);
    const bool possible = made.impossible.empty();
    addtest(comparison, made.chisquare);
    comparison["p"] = whenever(possible, comparison["p"]);
    comparison["mixture_p"] = whenever(possible && made.mixture, number(made.mixturep));
    comparison["impossible"] = textornull(made.impossible);
  }
  phase["model_comparison"] = std::move(comparison);
}

// The shares of a linear model with nothing but an intercept that varies at all three levels.
Json intraclass(double sigma2, const Array<double>& taupi, const Array<double>& taubeta) {
  const ModelRows rows = modelrows(run.model);
  const bool null = run.model.outcome.linear() && run.model.autovknown == 0 && rows.effects.size() == 1 &&
                    taupi.size() == 1 && taubeta.size() == 1 && rows.coefficients[0].variable == 0 &&
                    rows.terms[0].variable == 0 && rows.effects[0].variable == 0;
  if (!null) return {};
  const double total = sigma2 + taupi[0] + taubeta[0];
  return {{"share_level1", number(sigma2 / total)},
          {"share_level2", number(taupi[0] / total)},
          {"share_level3", number(taubeta[0] / total)},
          {"same_level3_unit", number(taubeta[0] / total)},
          {"same_level2_unit", number((taupi[0] + taubeta[0]) / total)}};
}

// Phases.

const char* phasename(const PassResults& results) {
  switch (results.kind) {
    case PassKind::linear:
      return results.heterogeneous ? "heterogeneous" : "final";
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
  return ending == Ending::converged ? "converged" : ending == Ending::limit ? "limit" : "keyboard";
}

bool isengine(const PassResults& results) {
  return results.kind == PassKind::laplace6 || results.kind == PassKind::quadrature;
}

constexpr const char* fewunits = "The robust standard errors are for data with a larger number of level-3 units.";
constexpr const char* norobust = "The robust standard errors cannot be computed for this model.";

Json warningsof(const PassResults& results) {
  Json warnings = Json::array();
  for (const std::string& warning : results.warnings) warnings.push_back(warning);
  if (results.errors.asked && !results.errors.known && !results.tausstand())
    warnings.push_back("Standard errors of the variance components are not computable.");
  const bool hasrobust = results.kind != PassKind::identity && !isengine(results) && !results.heterogeneous;
  if (hasrobust && results.robust.empty()) warnings.push_back(norobust);
  if (hasrobust && !results.robust.empty() && results.fewunits) warnings.push_back(fewunits);
  return warnings;
}

// Which elements of a tau have no standard error because they are at the edge of their range.
Json edges(int n, const std::vector<bool>& edge) {
  if (edge.empty()) return {};
  Json rows = Json::array();
  for (int i = 0; i < n; ++i) {
    Json row = Json::array();
    for (int j = 0; j < n; ++j) row.push_back(static_cast<bool>(edge[at(i) * at(n) + at(j)]));
    rows.push_back(std::move(row));
  }
  return rows;
}

void addpoints(Json& phase, const PassResults& results) {
  const QuadraturePoints& made = results.quadrature;
  phase["points"] = made.points;
  phase["check"] = made.next == 0 ? Json()
                                  : Json{{"points", made.next},
                                         {"log_likelihood_change", number(made.change)},
                                         {"largest_standard_error_change", number(made.errorchange)}};
  phase["tau_pi"]["at_edge"] = edges(run.model.coef.ntaupi, results.errors.edgepi);
  phase["tau_beta"]["at_edge"] = edges(run.model.coef.ntaubeta, results.errors.edgebeta);
}

void addvariances(Json& phase, const PassResults& results) {
  const bool stand = results.tausstand(), errors = results.errors.known;
  const Estimates& est = results.est;
  const int p = run.model.coef.ntaupi, b = run.model.coef.ntaubeta;
  const Reliabilities& rel = results.reliabilities;
  const bool held = results.fixsigma2 != 0.0;
  const bool heldbyvariable = run.model.outcome.linear() && run.model.autovknown != 0;
  phase["sigma2"] = isengine(results)
                        ? Json()
                        : sigma2of(heldbyvariable ? missingcode : est.sigma2, held, errors, results.errors.sigma2);
  phase["tau_pi"] =
      stand || results.heterogeneous
          ? Json()
          : taumatrix(Tau::pi, {p, &est.taupi, errors ? &results.errors.taupi : nullptr, &rel.level2, rel.units2});
  phase["tau_beta"] =
      stand
          ? Json()
          : taumatrix(Tau::beta, {b, &est.taubeta, errors && !results.heterogeneous ? &results.errors.taubeta : nullptr,
                                  &rel.level3, rel.units3});
  const VarianceTests& tests = results.tests;
  const bool show = !stand && !isengine(results) && results.kind != PassKind::identity && !results.heterogeneous;
  if (!show) {
    phase["variance_tests"] = nullptr;
    return;
  }
  phase["variance_tests"] = {{"level2", variancetests(est.taupi, tests.level2)},
                             {"level2_units", tests.units2},
                             {"level3", variancetests(est.taubeta, tests.level3)},
                             {"level3_units", tests.units3}};
}

// A phase takes the place of an earlier one of its name.
void addphase(Json phase) {
  for (std::size_t i = 0; i < document.phases.size(); ++i)
    if (document.phases[i]["phase"] == phase["phase"]) document.phases.erase(i--);
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

Json phaseof(const PassResults& results) {
  Json phase = emptyphase(phasename(results), endingname(results.ending), results.ending == Ending::converged);
  phase["macro_iteration"] = whenever(results.macro != 0, results.macro);
  phase["iterations"] = results.iteration;
  addlikelihood(phase, results.loglik, results.kind == PassKind::linear || isengine(results), results.parameters,
                results.marginal);
  phase["marginal_log_likelihood"] = number(results.marginal);
  addvariances(phase, results);
  if (!results.heterogeneous && results.kind == PassKind::linear)
    phase["intraclass_correlation"] = intraclass(results.est.sigma2, results.est.taupi, results.est.taubeta);
  addeffects(phase, results.est.gammahat, results.effects, results.robusteffects, results.kind != PassKind::identity);
  phase["warnings"] = warningsof(results);
  for (const std::string& note : results.notes) phase["warnings"].push_back(note);
  if (results.kind == PassKind::quadrature) addpoints(phase, results);
  return phase;
}

Json averagedphase(const char* name, const PooledEffects& effects) {
  Json phase = emptyphase(name, nullptr, nullptr);
  addeffects(phase, effects.gamma, effects.model.effects, effects.robust.effects, true);
  phase["warnings"] = Json::array();
  if (!effects.robust.known) phase["warnings"].push_back(norobust);
  return phase;
}

// The whole.

Json seriesfacts() {
  const SeriesMode& series = run.series;
  if (!series.mimode && !series.pvmode) return {};
  Json facts{
      {"kind", series.pvmode ? "plausible values" : "multiple imputation"},
      {"subrun", document.averages ? Json() : Json(subrunnumber())},
      {"plausible_value", series.pvmode && !document.averages ? nameornull(run.mdm.names1, series.pvcurrent) : Json()}};
  facts["failed_subruns"] = document.failed;
  return facts;
}

// Of the averages of a multiple imputation nothing is known of how the other processes ended.
Json converged() {
  if (!document.averages) return !run.id.passunconverged;
  return run.series.mimode ? Json() : Json(!run.id.unconverged);
}

Json filesmade() {
  Json files = Json::array();
  if (!reportisstdout()) files.push_back(document.averages ? averagedreportname() : run.files.outfile);
  if (!document.averages)
    for (const std::string& name : run.files.made) files.push_back(name);
  return files;
}

// The sentences about the run, those on phases that ended too soon, and those on comparisons that are none.
Json allwarnings() {
  Json warnings = document.warnings;
  if (converged() == false)
    for (const Json& phase : document.phases)
      if (phase["converged"] == false && phase["phase"] != "identity" &&
          !(phase["phase"] == "population_average" && run.model.restrictions.fixsigma2))
        warnings.push_back("The iterations of the phase " + phase["phase"].get<std::string>() +
                           " were stopped prior to convergence.");
  for (const Json& phase : document.phases)
    if (const Json& compared = phase["model_comparison"]; !compared.is_null() && !compared["impossible"].is_null())
      warnings.push_back("The models of DEVIANCE: cannot be compared. " + compared["impossible"].get<std::string>());
  return warnings;
}

// What tells the files that pictures are drawn from.
Json checksums() {
  Json list = Json::array();
  if (!document.averages)
    for (const FileMark& mark : run.files.marks)
      list.push_back({{"file", mark.name}, {"bytes", mark.bytes}, {"crc32", mark.crc}});
  return list;
}

// Names and labels as the source of the data has them.
Json variables() {
  Json list = Json::array();
  const Array<Name>* names[] = {&run.mdm.names1, &run.mdm.names2, &run.mdm.names3};
  for (int level = 1; level <= 3; ++level)
    for (int v = 1; v < static_cast<int>(names[level - 1]->size()); ++v) {
      const VariableText* text = run.mdm.texts.of(level, v);
      if (text == nullptr) continue;
      Json values = Json::array();
      for (const auto& [value, label] : text->labels) values.push_back({{"value", number(value)}, {"label", label}});
      list.push_back({{"level", level},
                      {"name", leftname((*names[level - 1])[v])},
                      {"whole_name", textornull(text->name)},
                      {"label", textornull(text->label)},
                      {"values", std::move(values)}});
    }
  return list;
}

Json wholedocument() {
  Json whole = {{"format", "kdr3 results"},
                {"format_version", 3},
                {"program", module},
                {"version", version},
                {"title", run.files.title},
                {"data", {{"mdm_file", run.files.mdmfile}, {"command_file", textornull(run.files.cmdshown)}}},
                {"dimensions",
                 {{"records", run.mdm.nunits1}, {"level2_units", run.mdm.nunits2}, {"level3_units", run.mdm.nunits3}}},
                {"model", model()},
                {"series", seriesfacts()},
                {"converged", converged()},
                {"phases", document.phases},
                {"warnings", allwarnings()},
                {"files", filesmade()},
                {"checksums", checksums()}};
  if (run.mdm.texts.any()) whole["variables"] = variables();
  return whole;
}

bool istable(const std::string& path) { return strcasecmp(path.substr(extensionplace(path)).c_str(), ".csv") == 0; }

void writedocument(const std::string& path) {
  const Json whole = wholedocument();
  const std::string text =
      istable(path) ? resultstable(whole) : whole.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
  ResultFile file;
  openresult(file, path);
  writeresult(file, text);
  finishresult(file);
}

}  // namespace

void startdocument() {
  document = {Json::array(), Json::array(), Json::array(), false};
  for (const std::string& words : run.odd) document.warnings.push_back("Command file: " + words);
  run.id.passunconverged = false;
  run.files.made.clear();
  run.files.marks.clear();
}

void documentpass(const PassResults& results) {
  if (wanted() && (run.out.fulloutput || results.kind != PassKind::identity)) addphase(phaseof(results));
}

void documentheterogeneous(const PassResults& results, const Array<double>& mean, const Array<double>& weighted) {
  if (!wanted()) return;
  Json phase = phaseof(results);
  phase["tau_pi_average"] = square(run.model.coef.ntaupi, mean);
  phase["tau_pi_weighted_average"] = square(run.model.coef.ntaupi, weighted);
  addphase(std::move(phase));
}

void documentleastsquares(const LeastSquaresResults& results) {
  if (!wanted()) return;
  Json phase = emptyphase("least_squares", nullptr, true);
  addlikelihood(phase, results.loglik, true, results.parameters);
  phase["model_comparison"] = nullptr;
  phase["sigma2"] = sigma2of(results.sigma2, false, false, 0.0);
  addeffects(phase, results.gamma, results.effects, results.robusteffects, false);
  phase["warnings"] = Json::array();
  if (results.robust.empty()) {
    phase["warnings"].push_back(norobust);
  } else if (results.fewunits) {
    phase["warnings"].push_back(fewunits);
  }
  addphase(std::move(phase));
}

void documentaverages(const Pooled& pooled, std::span<const int> failed) {
  document.averages = true;
  if (!wanted()) return;
  for (const int index : failed) document.failed.push_back(index + 1);
  Json phase = averagedphase("average", pooled.effects);
  const int q = static_cast<int>(pooled.reliability2.size()), r = static_cast<int>(pooled.reliability3.size());
  phase["subruns"] = pooled.M;
  phase["sigma2"] = sigma2of(pooled.sigma2, pooled.sigma2fixed, pooled.errorsknown, pooled.sigma2error);
  phase["tau_pi"] = taumatrix(Tau::pi, {q, &pooled.taupi, pooled.errorsknown ? &pooled.taupierrors : nullptr,
                                        &pooled.reliability2, pooled.units2});
  phase["tau_beta"] = taumatrix(Tau::beta, {r, &pooled.taubeta, pooled.errorsknown ? &pooled.taubetaerrors : nullptr,
                                            &pooled.reliability3, pooled.units3});
  phase["variance_tests"] = {{"level2", variancetests(pooled.taupi, pooled.tests.level2)},
                             {"level2_units", pooled.tests.units2},
                             {"level3", variancetests(pooled.taubeta, pooled.tests.level3)},
                             {"level3_units", pooled.tests.units3}};
  phase["intraclass_correlation"] = intraclass(pooled.sigma2, pooled.taupi, pooled.taubeta);
  addphase(std::move(phase));
  if (!pooled.popaverage.gamma.empty()) {
    Json average = averagedphase("average_population_average", pooled.popaverage);
    average["subruns"] = pooled.M;
    addphase(std::move(average));
  }
}

void documentending(bool converged) {
  if (!wanted() || document.phases.empty()) return;
  Json& phase = document.phases.back();
  phase["converged"] = converged;
  if (converged || phase["ending"] == endingname(Ending::converged))
    phase["ending"] = endingname(converged ? Ending::converged : Ending::limit);
}

void documentwarning(const std::string& words) {
  if (wanted()) document.warnings.push_back(words);
}

const Json& documentphases() { return document.phases; }

std::string resultsname() { return subrunname(run.files.results); }

void refuseforeignresults() {
  for (const std::string& name : {resultsname(), run.files.results}) {
    std::error_code none;
    if (name.empty() || isspecial(name) || !std::filesystem::exists(name, none)) continue;
    char head[sizeof documenthead] = {};
    std::FILE* old = openfile(name, "rb");
    const std::string_view start(head, readupto(head, sizeof head - 1, old, name));
    std::fclose(old);
    if (!start.empty() && start != documenthead && !start.starts_with(tablehead))
      stopwith("The file %s holds no results of this program. It would be lost: give the results another name\n",
               name.c_str());
  }
}

void writeresults() {
  if (wanted()) writedocument(resultsname());
}

void writeaveragedresults() {
  if (wanted() && document.averages && !document.phases.empty()) writedocument(run.files.results);
}

}  // namespace kdr
