#include "app/nonlinearjob.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/bootstrapjob.h"
#include "app/enginelines.h"
#include "app/predictionjob.h"
#include "app/seriesrun.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/convergence.h"
#include "estimate/likelihood/engines.h"
#include "estimate/linear/exploratory.h"
#include "estimate/quasi/categoryloop.h"
#include "estimate/quasi/macrocontrol.h"
#include "estimate/quasi/macroloop.h"
#include "kernel/sizes.h"
#include "report/enginetables.h"
#include "report/exploratorytables.h"
#include "report/graphdata.h"
#include "report/modelstatistics.h"
#include "report/passtables.h"
#include "report/residual/columns.h"
#include "report/residual/residualfiles.h"
#include "report/resultsdocument.h"
#include "report/startvaluesfile.h"
#include "report/stream.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

bool wantsengine() { return run.control.laplace || run.control.agqpoints != 0; }

bool categorical(const ChainPass& pass) { return pass.results.kind == PassKind::categories; }

// The fixed effects of the phases for the graph data file, ngamma each, one behind the other; missingcode at the head
// of one that has none.
Array<double> graphgammas(const MacroState& state) {
  const std::size_t g = at(run.model.coef.ngamma);
  Array<double> gammas(3 * g);
  std::size_t first = 0;
  for (const Array<double>* gamma : {&state.unitspecificgamma, &state.laplacegamma, &state.quadraturegamma}) {
    if (gamma->empty()) {
      gammas[first] = missingcode;
    } else {
      std::copy(gamma->begin(), gamma->end(), gammas.data() + first);
    }
    first += g;
  }
  return gammas;
}

// The files' values, by the pass or by the engine that has left its own.
ResidualSource sourceof(const ChainPass& pass, const char* phase, const EnginePosteriors* engine = nullptr) {
  const MacroState& state = pass.state;
  ResidualSource source{pass.pass, state.working, state.layout, phase, {}, nullptr, &state.counts};
  if (engine == nullptr) return source;
  source.phase = engine->kind == PassKind::quadrature ? "quadrature" : "laplace6";
  source.label = "Random effects by " + methodwords(engine->kind, engine->points);
  source.engine = &engine->effects;
  return source;
}

void residualfiles(const ChainPass& pass) {
  if (wantresidualfiles()) writeresidualfiles(sourceof(pass, "pql"));
}

void graphfile(const ChainPass& pass, const char* phase) {
  if (run.out.graph) writegraphdata(sourceof(pass, phase), graphgammas(pass.state));
}

// Which files have the random effects of what.
std::string whosefiles(const EnginePosteriors* engine) {
  const char* files = !wantresidualfiles() ? "The graph data file has" : "The residual files have";
  if (engine != nullptr && wantresidualfiles() && run.out.graph)
    files = "The residual files and the graph data file have";
  const bool modes = engine != nullptr && (engine->kind == PassKind::laplace6 || engine->points == 1);
  std::string words = std::string(files) + " the random effects of " +
                      (engine == nullptr ? methodwords(PassKind::pql) : methodwords(engine->kind, engine->points));
  if (engine != nullptr) words += modes ? ": modes and the curvature there" : ": posterior means and variances";
  return words + ".";
}

// The engine whose random effects go into the files.
const EnginePosteriors* engineoffiles(const ChainPass& pass) {
  return residualsofengine() && pass.state.posteriors ? &*pass.state.posteriors : nullptr;
}

// The files of a run with engines, once these are over; without results of an engine the graph data file has to wait
// for the last pass.
void enginesfiles(const ChainPass& pass) {
  if (!residualsofengine()) return;
  const EnginePosteriors* engine = engineoffiles(pass);
  const ResidualSource source = sourceof(pass, "pql", engine);
  if (engine == nullptr && pass.state.end == MacroEnd::failed) return;
  if (wantresidualfiles()) writeresidualfiles(source);
  // Outcomes with categories have no later pass.
  if (run.out.graph && (engine != nullptr || categorical(pass))) writegraphdata(source, graphgammas(pass.state));
}

void tellwhosefiles(const ChainPass& pass) {
  const EnginePosteriors* engine = engineoffiles(pass);
  if (engine == nullptr && (!wantresidualfiles() || pass.state.end == MacroEnd::failed)) return;
  if (!wantresidualfiles() && !run.out.graph) return;
  reportline("%s", whosefiles(engine).c_str());
  markreport();
}

void unitspecificfiles(const ChainPass& pass, const Estimates& est, const Array<double>& covariance) {
  writetaufile(taufile, est, pass.results.errors, false);
  writegammafile(unitspecificgammafile, est.gammahat, covariance);
}

void tellmacro(int macro) {
  if (macro == 1) holdinterrupts();
  if (macro > 1 && run.model.outcome.categorical()) cutreport();
  std::printf("\n                         MACRO ITERATION %d\n\n", macro);
  std::fflush(stdout);
}

// The end of the population-average pass: words for one that was stopped before it had converged.
void averageends(const PassResults& results) {
  if (const std::string words = unsettledaverage(results); !words.empty()) {
    notconverged(words + "\n");
    reportwarning(words);
  }
  if (!endedearly(results)) return;
  notconverged("The iterations of the population average were stopped prior to convergence.\n");
  endingwords(results);
}

// The population-average pass and the files that hang on it.
void tellaverage(const ChainPass& pass) {
  const PassResults& results = pass.results;
  documentpass(results);
  passtables(results);
  averageends(results);
  storesubrun(results);
  if (run.out.printvc != VarianceFiles::none) {
    if (run.control.popavit <= 1) writegammafile(robustpopulationgammafile, results.est.gammahat, results.robust);
    writegammafile(populationgammafile, results.est.gammahat, results.covariance);
  }
  if (engineoffiles(pass) == nullptr) graphfile(pass, "population_average");
}

void tellpass(const ChainPass& pass) {
  if (pass.results.kind == PassKind::populationaverage) return tellaverage(pass);
  documentpass(pass.results);
  passtables(pass.results);
  storesubrun(pass.results);  // the next pass of the phase takes its place
  if (!run.files.startvals.empty()) writestartvalues(pass.pass.est);
  if (pass.results.kind != PassKind::identity && haveexploratory(run.model)) exploratorytables(exploratory(pass.pass));
}

// Separation that the data show: on the console before the first pass, elsewhere behind the last one.
void tellseparation(const Separation& found) {
  for (const std::string& words : found.warnings) std::printf("%s\n", words.c_str());
}

// Effects without finite estimates at the end of the unit-specific phase.
void separationends(const Separation& found) {
  if (!found.known()) return;
  for (const std::string& words : found.warnings) {
    std::printf("%s\n", words.c_str());
    reportwarning(words);
  }
  // An effect without a finite estimate would spoil the averages.
  if (run.series.mimode || run.series.pvmode) stopwith("A sub-run with separation is no part of a series.\n");
}

// Words may hold a name of the user's: it must not talk to a report in HTML.
std::string escapedlines(const std::string& text) {
  std::string words;
  for (std::size_t from = 0, end = 0; end != std::string::npos; from = end + 1) {
    end = text.find('\n', from);
    if (from > 0) words += '\n';
    words += escaped(text.substr(from, end - from));
  }
  return words;
}

void tellmacroend(const MacroEvent& event) {
  const PassResults& results = event.results;
  documentmacroend(event);
  if (endedearly(event)) notconverged("");
  switch (event.end) {
    case MacroEnd::goeson:
      if (results.kind == PassKind::identity) markreport();
      return;
    case MacroEnd::converged:
      std::printf("The macro iterations have converged at iteration %d.\n", event.macro);
      break;
    case MacroEnd::keyboard:
      std::printf("The macro iterations were stopped from the keyboard, prior to convergence.\n");
      endingwords(results);
      break;
    case MacroEnd::limit:
      std::printf("The macro iterations were stopped prior to convergence.\n");
      reportwarning(
          "WARNING: the macro iterations were stopped prior to convergence.\n"
          "You may want to re-run the analysis with a higher number of macro iterations.");
      break;
    case MacroEnd::lost:
      std::printf("The macro iterations have settled, but the search for the maximum of the last one has failed.\n");
      reportwarning(
          "WARNING: the macro iterations have settled, but the search for the maximum of the last one has failed:\n"
          "nobody knows how far the estimates are from where they should be.");
      break;
    case MacroEnd::failed:
    case MacroEnd::noaverage: {
      // The averages of a series are those of quasi-likelihood.
      if (run.series.mimode || run.series.pvmode) tell(*event.failure);
      const std::string words = failedwords(event);
      std::printf("%s\n", words.c_str());
      rewindreport();
      reportwarning(escapedlines(words));
      markreport();
      return;
    }
    case MacroEnd::separated:
      std::printf("The macro iterations end at iteration %d: there is no maximum to converge to.\n", event.macro);
      break;
  }
  separationends(event.separation);
  const std::string words = unsettledwords(results);
  if (words.empty()) return;
  notconverged(words + "\n");
  reportwarning(words);
}

void closephase(const ChainPass& pass) {
  documenteffects("pql", pass.pass);
  keepuniteffects(pass.pass);
  if (categorical(pass)) {
    if (!residualsofengine()) residualfiles(pass);
    if (run.out.printvc != VarianceFiles::none) unitspecificfiles(pass, pass.results.est, pass.results.covariance);
    if (!residualsofengine()) graphfile(pass, "pql");
    if (wantsengine()) markreport();
    return;
  }
  for (const std::string& warning : pass.results.warnings) std::printf("%s\n", warning.c_str());
  if (!residualsofengine()) residualfiles(pass);
  markreport();
  if (wantsengine() && run.out.printvc != VarianceFiles::none)
    unitspecificfiles(pass, pass.pass.est, pass.results.covariance);
}

void enginefiles(const ChainPass& pass) {
  if (wantsengine()) {
    const std::optional<PassKind> last = lastengine(run.control);
    if (last && pass.state.engine == last) {
      storesubrun(*pass.state.engineresults());
    } else {
      enginemissing();
    }
    enginesfiles(pass);
    if (pass.state.posteriors) documenteffects(sourceof(pass, "pql", &*pass.state.posteriors));
    tellwhosefiles(pass);
  }
  if (run.out.printvc == VarianceFiles::none || (categorical(pass) && !wantsengine()) ||
      pass.state.end == MacroEnd::failed)
    return;
  const Estimates& est = pass.pass.est;
  if (run.control.laplace) {
    writegammafile(populationgammafile, est.gammahat, est.covariance());
  } else {
    unitspecificfiles(pass, est, wantsengine() ? est.covariance() : pass.results.covariance.copy());
  }
}

void tellfailure(Failure failure) {
  if (!failure) return;
  failure.reportwords = escapedlines(failure.reportwords);
  tell(failure);
}

}  // namespace

void observechain(Observer& observer) {
  observer.separation = tellseparation;
  observer.macrobegins = tellmacro;
  observer.passstands = tellpass;
  observer.macrocreeps = [](int) {
    std::printf("The macro iterations creep: from here on each searches for the maximum of its log-likelihood.\n");
  };
  observer.macroends = tellmacroend;
  observer.macrolimitraised = [](int limit) { std::printf("Setting number of macro iterations to %d.\n\n", limit); };
  observer.phasecloses = closephase;
  observer.enginesover = enginefiles;
  observer.engine = tellengine;
  observer.enginestands = tellenginestage;
}

CategoryTable categoriesofrun(const Analysis& analysis) {
  CategoryTable table;
  tellfailure(readcategories(analysis, table));
  run.model.categorylabel = categorylabels(table.value.data(), run.model.outcome.categories);
  return table;
}

PassResults nonlinearjob(const Analysis& analysis, const CategoryTable& table) {
  const bool categories = analysis.model.outcome.categorical();
  ChainFit fit{analysis};
  tellfailure(categories ? fitcategories(table, fit) : fitnonlinear(fit));
  releaseinterrupts();
  if (categories) std::printf("\n");
  if (run.out.deviance && !wantsengine()) {
    constexpr const char* words =
        "DEVIANCE: has no effect: quasi-likelihood (PQL) is no likelihood of the data and has no deviance to compare.";
    documentwarning(words);
    sentences(words);
  }
  bootstrapjob(fit);
  MacroState& state = fit.state;
  const bool failed = state.end == MacroEnd::failed;
  const bool quadrature = state.engine ? *state.engine == PassKind::quadrature : state.quadrature.has_value();
  PassResults& last = !state.engine && !failed ? state.unitspecific : quadrature ? *state.quadrature : *state.laplace6;
  const bool own = state.engine && state.posteriors && state.posteriors->kind == *state.engine;
  writepredictions(analysis, last, !state.engine && !failed, own ? &state.posteriors->effects.random : nullptr);
  return std::move(last);
}

void listnonlinearfiles() {
  if (run.out.printvc == VarianceFiles::none) return;
  const bool errors = run.control.fishertype != FisherType::none;
  // Without those of what has no results.
  const auto created = [](const char* name) {
    return std::find(run.files.made.begin(), run.files.made.end(), name) != run.files.made.end();
  };
  const bool laplace = created(laplacetaufile), pql = created(unitspecificgammafile);
  if (!pql && !laplace) return;
  reportbreak();
  if (pql) {
    report("%s, containing the taus ", taufile);
    if (errors) {
      report("and the variance-covariance matrix of the taus");
      filelistbreak();
    }
    reportline("has been created.");
  }
  if (laplace) {
    report("tauvcl6, containing the Laplace taus and the variance-covariance matrix of");
    filelistbreak();
    reportline("the taus has been created.");
  }
  if (pql) {
    report("%s, containing the unit-specific variance-covariance matrix of gamma", unitspecificgammafile);
    filelistbreak();
    report("has been created.\n");
    reportbreak();
  }
  if (created(populationgammafile)) {
    report("%s, containing the population average variance-covariance matrix of", populationgammafile);
    filelistbreak();
    reportline("gamma has been created.");
    report("%s, containing the robust population average variance-covariance", robustpopulationgammafile);
    filelistbreak();
    reportline("matrix of gamma has been created.");
  }
  if (laplace) {
    report("gamvcl6.dat, containing the Laplace variance-covariance matrix of gamma");
    filelistbreak();
    reportline("has been created.");
  }
  endfilelist();
}

}  // namespace kdr
