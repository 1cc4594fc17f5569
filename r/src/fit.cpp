// A model as R describes it becomes one of the C interface, is fitted, and its results become R's.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "glue.h"
#include "kdr3/kdr3.h"

namespace {

struct DataFree {
  void operator()(kdr3_data* data) const { kdr3_data_free(data); }
};
struct ModelFree {
  void operator()(kdr3_model* model) const { kdr3_model_free(model); }
};
struct ResultFree {
  void operator()(kdr3_result* result) const { kdr3_result_free(result); }
};
using Data = std::unique_ptr<kdr3_data, DataFree>;
using Model = std::unique_ptr<kdr3_model, ModelFree>;
using Result = std::unique_ptr<kdr3_result, ResultFree>;

// The model as R tells it. Pointers into R's vectors, which the caller protects.
struct Spec {
  std::vector<kdr3_column> columns;  // the outcome is the first one
  kdr3_column id2{}, id3{};
  bool threelevels = false;
  std::size_t records = 0;
  const char* counts = nullptr;  // the column of trials or exposure
  kdr3_family family = KDR3_NORMAL;
  int categories = 0;
  // Rows of the equations: the column (0: the intercept, else its number from 1), and what the interface asks.
  struct Term {
    int owner, column, random;
  };
  std::vector<Term> level1, level2, level3;
  std::vector<std::pair<const char*, double>> settings;
  const char* weights[3] = {};
  [[nodiscard]] bool weighted() const {
    return weights[0] != nullptr || weights[1] != nullptr || weights[2] != nullptr;
  }
  std::vector<double> held[2];
  struct Hypothesis {
    std::size_t rows, count;
    const double* contrasts;
  };
  std::vector<Hypothesis> hypotheses;
  int replicates = 0, cases = 0;  // of a bootstrap behind the fit
  std::uint64_t seed = 1;
};

const char* textof(SEXP value) {
  return Rf_isString(value) && Rf_length(value) == 1 ? CHAR(STRING_ELT(value, 0)) : nullptr;
}

std::vector<Spec::Term> termsof(SEXP matrix) {
  std::vector<Spec::Term> terms;
  const int rows = Rf_nrows(matrix);
  for (int i = 0; i < rows; ++i)
    terms.push_back({INTEGER(matrix)[i], INTEGER(matrix)[i + rows], INTEGER(matrix)[i + 2 * rows]});
  return terms;
}

kdr3_column idof(SEXP codes, const char* name) { return {name, 1, KDR3_INT32, INTEGER(codes), 0, nullptr}; }

Spec specof(SEXP given) {
  Spec spec;
  SEXP columns = element(given, "columns"), names = Rf_getAttrib(columns, R_NamesSymbol),
       levels = element(given, "levels");
  for (R_xlen_t c = 0; c < Rf_xlength(columns); ++c)
    spec.columns.push_back(
        {CHAR(STRING_ELT(names, c)), INTEGER(levels)[c], KDR3_DOUBLE, REAL(VECTOR_ELT(columns, c)), 0, nullptr});
  SEXP id2 = element(given, "id2"), id3 = element(given, "id3");
  spec.records = static_cast<std::size_t>(Rf_xlength(id2));
  spec.id2 = idof(id2, "level-2 unit");
  spec.threelevels = id3 != R_NilValue;
  if (spec.threelevels) spec.id3 = idof(id3, "level-3 unit");
  spec.counts = textof(element(given, "counts"));
  spec.family = static_cast<kdr3_family>(Rf_asInteger(element(given, "family")));
  spec.categories = Rf_asInteger(element(given, "categories"));
  spec.level1 = termsof(element(given, "level1"));
  spec.level2 = termsof(element(given, "level2"));
  spec.level3 = termsof(element(given, "level3"));
  SEXP settings = element(given, "settings"), settingnames = Rf_getAttrib(settings, R_NamesSymbol);
  for (R_xlen_t s = 0; s < Rf_xlength(settings); ++s)
    spec.settings.emplace_back(CHAR(STRING_ELT(settingnames, s)), REAL(settings)[s]);
  SEXP weights = element(given, "weights");
  for (R_xlen_t level = 0; level < Rf_xlength(weights); ++level)
    spec.weights[level] = textof(VECTOR_ELT(weights, level));
  const char* heldnames[] = {"held2", "held3"};
  for (int level = 0; level < 2; ++level) {
    SEXP held = element(given, heldnames[level]);
    if (held != R_NilValue) spec.held[level].assign(REAL(held), REAL(held) + Rf_xlength(held));
  }
  SEXP hypotheses = element(given, "hypotheses");
  for (R_xlen_t h = 0; h < Rf_xlength(hypotheses); ++h) {
    SEXP contrasts = VECTOR_ELT(hypotheses, h);  // a column for each contrast, which is a row of the interface
    spec.hypotheses.push_back({static_cast<std::size_t>(Rf_ncols(contrasts)),
                               static_cast<std::size_t>(Rf_nrows(contrasts)), REAL(contrasts)});
  }
  SEXP bootstrap = element(given, "bootstrap");
  if (bootstrap != R_NilValue) {
    spec.replicates = Rf_asInteger(element(bootstrap, "replicates"));
    spec.seed = static_cast<std::uint64_t>(Rf_asReal(element(bootstrap, "seed")));
    spec.cases = Rf_asLogical(element(bootstrap, "cases"));
  }
  return spec;
}

void check(kdr3_status status) {
  if (status == KDR3_ERROR) throw std::runtime_error(kdr3_message());
}

Data dataof(const Spec& spec) {
  kdr3_data* data = nullptr;
  check(kdr3_data_make(spec.records, spec.columns.size(), spec.columns.data(), &spec.id2,
                       spec.threelevels ? &spec.id3 : nullptr, &data));
  return Data(data);
}

const char* columnname(const Spec& spec, int column) {
  return column == 0 ? nullptr : spec.columns[static_cast<std::size_t>(column - 1)].name;
}

Model modelof(const Spec& spec, const kdr3_data* data) {
  kdr3_model* made = nullptr;
  check(kdr3_model_make(data, spec.columns[0].name, spec.family, spec.counts, spec.categories, &made));
  Model model(made);
  for (const Spec::Term& term : spec.level1)
    check(kdr3_model_level1(made, columnname(spec, term.column), KDR3_RAW, term.random, nullptr));
  for (const Spec::Term& term : spec.level2)
    check(kdr3_model_level2(made, term.owner, columnname(spec, term.column), KDR3_RAW, term.random, nullptr));
  for (const Spec::Term& term : spec.level3)
    check(kdr3_model_level3(made, term.owner, columnname(spec, term.column), KDR3_RAW));
  for (const auto& [name, value] : spec.settings) check(kdr3_model_set(made, name, value));
  if (spec.weighted()) check(kdr3_model_weights(made, spec.weights[0], spec.weights[1], spec.weights[2], nullptr));
  for (int level = 0; level < 2; ++level) {
    const std::vector<double>& held = spec.held[level];
    std::size_t order = 0;
    while (order * order < held.size()) ++order;
    if (order > 0) check(kdr3_model_restrict(made, level + 2, order, held.data(), nullptr));
  }
  for (const Spec::Hypothesis& hypothesis : spec.hypotheses)
    check(kdr3_model_hypothesis(made, hypothesis.rows, hypothesis.count, hypothesis.contrasts));
  if (spec.replicates > 0) check(kdr3_model_bootstrap(made, spec.replicates, spec.seed, spec.cases));
  return model;
}

kdr3_summary summaryof(const kdr3_result* result) {
  kdr3_summary summary{};
  summary.size = sizeof summary;
  check(kdr3_result_summary(result, &summary));
  return summary;
}

// ---- One fit ----------------------------------------------------------------------------------------------------

// The results of a fit, of which R's list is a copy.
struct Fitted {
  std::string error;
  bool interrupted = false;
  std::vector<std::string> warnings, names;
  std::string document;
  kdr3_summary summary{};
  std::vector<double> estimates, covariance, robust, df, taupi, taubeta, taupierrors, taubetaerrors, level2, level3,
      variances2, variances3, covariances, weights1, weights2, weights3, joint, tests, replicates;
  double sigma2error = 0;
};

// R is asked in its own thread alone, ten times a second: iterations may be short.
struct Watch {
  SEXP token;
  std::atomic<bool> interrupted{false};
  const std::thread::id owner = std::this_thread::get_id();
  std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
};

int askuser(void* state) {
  Watch& watch = *static_cast<Watch*>(state);
  if (watch.interrupted || std::this_thread::get_id() != watch.owner) return watch.interrupted ? 1 : 0;
  const auto now = std::chrono::steady_clock::now();
  if (now - watch.last > std::chrono::milliseconds(100)) {
    watch.last = now;
    watch.interrupted = leaving(watch.token);
  }
  return watch.interrupted ? 1 : 0;
}

std::size_t packed(std::size_t order) { return order * (order + 1) / 2; }

void takeeffects(const kdr3_result* result, Fitted& fitted) {
  const kdr3_summary& s = fitted.summary;
  fitted.level2.resize(s.units2 * s.random2);
  fitted.level3.resize(s.units3 * s.random3);
  fitted.variances2.resize(s.units2 * s.random2 * s.random2);
  fitted.variances3.resize(s.units3 * s.random3 * s.random3);
  check(kdr3_result_effects(result, fitted.level2.data(), fitted.level3.data()));
  check(kdr3_result_effectvariances(result, fitted.variances2.data(), fitted.variances3.data()));
  fitted.covariances.resize(s.units2 * s.random2 * s.random3);
  check(kdr3_result_effectcovariances(result, fitted.covariances.data()));
  const std::size_t parameters = packed(s.random2) + packed(s.random3) + s.fixedeffects;
  fitted.joint.resize(parameters * parameters);
  check(kdr3_result_joint(result, fitted.joint.data()));
}

void takeweights(const kdr3_result* result, Fitted& fitted) {
  const kdr3_summary& s = fitted.summary;
  fitted.weights1.resize(s.records);
  fitted.weights2.resize(s.units2);
  fitted.weights3.resize(s.units3);
  check(kdr3_result_weights(result, fitted.weights1.data(), fitted.weights2.data(), fitted.weights3.data()));
}

void taketests(const kdr3_result* result, std::size_t count, Fitted& fitted) {
  for (std::size_t h = 0; h < count; ++h) {
    kdr3_test test{};
    test.size = sizeof test;
    check(kdr3_result_test(result, h, 0, &test));
    fitted.tests.insert(fitted.tests.end(), {test.chisquare, static_cast<double>(test.df), test.df2, test.p});
  }
}

void takereplicates(const kdr3_result* result, Fitted& fitted) {
  const kdr3_summary& s = fitted.summary;
  std::size_t asked = 0;
  check(kdr3_result_replicates(result, &asked, nullptr, nullptr));
  fitted.replicates.resize(asked * (s.fixedeffects + packed(s.random2) + packed(s.random3) + 1));
  check(kdr3_result_replicates(result, nullptr, nullptr, fitted.replicates.data()));
}

void fit(const Spec& spec, SEXP token, Fitted& fitted) {
  Watch watch{token};
  const kdr3_observer observer{sizeof observer, &watch, askuser, nullptr, askuser};
  const Data data = dataof(spec);
  const Model model = modelof(spec, data.get());
  kdr3_result* made = nullptr;
  const kdr3_status status = kdr3_fit(model.get(), &observer, &made);
  const Result result(made);
  fitted.interrupted = watch.interrupted;
  if (watch.interrupted) return;
  check(status);
  for (std::size_t w = 0; kdr3_result_warning(made, w) != nullptr; ++w)
    fitted.warnings.emplace_back(kdr3_result_warning(made, w));
  fitted.document = kdr3_result_document(made, KDR3_JSON);
  const kdr3_summary& s = fitted.summary = summaryof(made);
  const std::size_t g = s.fixedeffects;
  for (std::size_t i = 0; i < g; ++i) fitted.names.emplace_back(kdr3_result_name(made, i));
  fitted.estimates.resize(g);
  fitted.df.resize(g);
  fitted.covariance.resize(g * g);
  fitted.robust.resize(g * g);
  check(kdr3_result_fixed(made, fitted.estimates.data(), fitted.covariance.data(), fitted.robust.data(),
                          fitted.df.data()));
  fitted.taupi.resize(s.random2 * s.random2);
  fitted.taupierrors.resize(s.random2 * s.random2);
  fitted.taubeta.resize(s.random3 * s.random3);
  fitted.taubetaerrors.resize(s.random3 * s.random3);
  check(kdr3_result_variances(made, fitted.taupi.data(), fitted.taubeta.data(), fitted.taupierrors.data(),
                              fitted.taubetaerrors.data(), &fitted.sigma2error));
  takeeffects(made, fitted);
  if (spec.weighted()) takeweights(made, fitted);
  taketests(made, spec.hypotheses.size(), fitted);
  if (spec.replicates > 0) takereplicates(made, fitted);
}

SEXP numbers(const std::vector<double>& values) {
  SEXP made = Rf_allocVector(REALSXP, static_cast<R_xlen_t>(values.size()));
  for (std::size_t i = 0; i < values.size(); ++i) REAL(made)[i] = values[i];
  return made;
}

SEXP texts(const std::vector<std::string>& values) {
  SEXP made = PROTECT(Rf_allocVector(STRSXP, static_cast<R_xlen_t>(values.size())));
  for (std::size_t i = 0; i < values.size(); ++i)
    SET_STRING_ELT(made, static_cast<R_xlen_t>(i), Rf_mkCharCE(values[i].c_str(), CE_UTF8));
  UNPROTECT(1);
  return made;
}

SEXP text(const std::string& value) { return Rf_ScalarString(Rf_mkCharCE(value.c_str(), CE_UTF8)); }

// A list of what `members` make, one after the other, while all before them are protected.
struct Member {
  const char* name;
  SEXP (*make)(const Fitted& fitted);
};
constexpr Member members[] = {
    {"error", [](const Fitted& f) { return f.error.empty() ? R_NilValue : text(f.error); }},
    {"warnings", [](const Fitted& f) { return texts(f.warnings); }},
    {"names", [](const Fitted& f) { return texts(f.names); }},
    {"document", [](const Fitted& f) { return text(f.document); }},
    {"converged", [](const Fitted& f) { return Rf_ScalarLogical(f.summary.converged); }},
    {"iterations", [](const Fitted& f) { return Rf_ScalarInteger(f.summary.iterations); }},
    {"parameters", [](const Fitted& f) { return Rf_ScalarInteger(static_cast<int>(f.summary.parameters)); }},
    {"loglikelihood", [](const Fitted& f) { return Rf_ScalarReal(f.summary.loglikelihood); }},
    {"sigma2", [](const Fitted& f) { return Rf_ScalarReal(f.summary.sigma2); }},
    {"sigma2error", [](const Fitted& f) { return Rf_ScalarReal(f.sigma2error); }},
    {"estimates", [](const Fitted& f) { return numbers(f.estimates); }},
    {"covariance", [](const Fitted& f) { return numbers(f.covariance); }},
    {"robust", [](const Fitted& f) { return numbers(f.robust); }},
    {"df", [](const Fitted& f) { return numbers(f.df); }},
    {"taupi", [](const Fitted& f) { return numbers(f.taupi); }},
    {"taubeta", [](const Fitted& f) { return numbers(f.taubeta); }},
    {"taupierrors", [](const Fitted& f) { return numbers(f.taupierrors); }},
    {"taubetaerrors", [](const Fitted& f) { return numbers(f.taubetaerrors); }},
    {"level2", [](const Fitted& f) { return numbers(f.level2); }},
    {"level3", [](const Fitted& f) { return numbers(f.level3); }},
    {"variances2", [](const Fitted& f) { return numbers(f.variances2); }},
    {"variances3", [](const Fitted& f) { return numbers(f.variances3); }},
    {"covariances", [](const Fitted& f) { return numbers(f.covariances); }},
    {"weights1", [](const Fitted& f) { return numbers(f.weights1); }},
    {"weights2", [](const Fitted& f) { return numbers(f.weights2); }},
    {"weights3", [](const Fitted& f) { return numbers(f.weights3); }},
    {"joint", [](const Fitted& f) { return numbers(f.joint); }},
    {"tests", [](const Fitted& f) { return numbers(f.tests); }},
    {"replicates", [](const Fitted& f) { return numbers(f.replicates); }},
};

SEXP listof(const Fitted& fitted) {
  constexpr R_xlen_t count = sizeof members / sizeof *members;
  SEXP made = PROTECT(Rf_allocVector(VECSXP, count)), names = PROTECT(Rf_allocVector(STRSXP, count));
  for (R_xlen_t m = 0; m < count; ++m) {
    SET_VECTOR_ELT(made, m, members[m].make(fitted));
    SET_STRING_ELT(names, m, Rf_mkChar(members[m].name));
  }
  Rf_setAttrib(made, R_NamesSymbol, names);
  UNPROTECT(2);
  return made;
}

}  // namespace

SEXP kdr3r_fit(SEXP given) {
  SEXP holder = nullptr;
  Fitted* fitted = owned<Fitted>(holder);
  SEXP token = PROTECT(R_MakeUnwindCont());
  fitted->error = sentenceof([&] { fit(specof(given), token, *fitted); });
  if (fitted->interrupted) R_ContinueUnwind(token);
  SEXP made = listof(*fitted);
  UNPROTECT(2);
  return made;
}
