#include "estimate/quasi/macroloop.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "estimate/likelihood/engines.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/exploratory.h"
#include "estimate/linear/runpass.h"
#include "estimate/quasi/macrocontrol.h"
#include "estimate/quasi/workingdata.h"
#include "kernel/sizes.h"
#include "report/exploratorytables.h"
#include "report/graphdata.h"
#include "report/passtables.h"
#include "report/residual/residualfiles.h"
#include "report/startvaluesfile.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

// The mean outcome of the identity pass, and the variance that the outcome type implies there.
Failure impliedvariance(double mean, double& variance) {
  const bool poisson = run.model.outcome.family == Family::poisson;
  const char* words = "\nThe outcome variable must take on values between 0 and 1.\n";
  if (!poisson && !(mean > 0.0 && mean < 1.0)) return failedwith(words, words);
  variance = poisson ? mean : mean * (1.0 - mean);
  return {};
}

PassPlan planof(const MacroState& state, PassKind kind, int macro) {
  PassPlan plan;
  plan.kind = kind;
  plan.macro = macro;
  plan.limit = run.control.numit;
  plan.stopval = run.control.stopval;
  plan.fixsigma2 = run.model.restrictions.fixsigma2.value_or(0.0);
  if (kind != PassKind::identity) plan.start = &state.previous;
  plan.freshgamma = kind == PassKind::pql && macro == 2;
  return plan;
}

// A pass over the blocks of the MDM file, which become the first working data file.
PassResults identitypass(Pass& pass, MacroState& state) {
  stopif(beginpass(pass, state.analysis, planof(state, PassKind::identity, state.macro)));
  RecordUnits units;
  startrecords(units, state.analysis);
  WorkingFile working = startworking();
  units.working = working.stream;
  if (run.model.outcome.counted) state.counts.reset(at(run.mdm.numl1rec));
  units.counts = run.model.outcome.counted ? &state.counts : nullptr;
  if (havefactors(run.model)) state.factors.reset(at(run.mdm.numl1rec));
  units.factors = havefactors(run.model) ? &state.factors : nullptr;
  double outcomes = 0.0, counts = 0.0;
  datapass(pass, [&](UnitProducts& unit) {
    if (!nextunit(units, unit)) return false;
    for (std::size_t i = 0; i < at(unit.nj); ++i) {
      const double* record = units.unit.records.data() + i * at(units.layout.width);
      outcomes += record[units.layout.observed];
      counts += run.model.outcome.counted ? record[units.layout.count] : 1.0;
    }
    return true;
  });
  stopif(units.failure);
  finishworking(std::move(working), state.working);
  state.layout = mdmlayout(run.model, run.mdm);
  PassResults results;
  state.mean = outcomes / counts;
  stopif(runpass(pass, state.iterations, results,
                 [&](double& variance) { return impliedvariance(state.mean, variance); }));
  return results;
}

// A pass over working data, whose data pass is done.
PassResults workingpass(Pass& pass, MacroState& state) {
  PassResults results;
  stopif(runpass(pass, state.iterations, results));
  if (state.limited > 0)
    results.warnings.push_back(
        formatted("WARNING: the working weights of %d records were held at %.0f.", state.limited, largestweight));
  return results;
}

// From the scale of the outcome to that of the link: the taus of an identity pass over the square of the derivative.
void rescaletaus(MacroState& state) {
  const double v = run.model.outcome.family == Family::poisson ? state.mean : state.mean * (1.0 - state.mean);
  for (Array<double>* tau : {&state.previous.taupi, &state.previous.taubeta})
    for (double& t : *tau) t /= v * v;
}

// The end of the unit-specific phase.
void closephase(Pass& pass, MacroState& state, const PassResults& results) {
  for (const std::string& warning : results.warnings) std::printf("%s\n", warning.c_str());
  state.unitspecificgamma = pass.est.gammahat.copy();
  if (wantresidualfiles()) writeresidualfiles(pass, state.working, state.layout);
  markreport();
  const bool engines = run.control.laplace || run.control.agqpoints != 0;
  const auto unitspecificfiles = [&] {
    writetaufile(taufile, pass.est, results.errors, false);
    writegammafile(unitspecificgammafile, pass.est.gammahat, pass.est.covariance());
  };
  if (engines && run.out.printvc != VarianceFiles::none) unitspecificfiles();
  if (engines) maximumlikelihood(pass, state, results);
  if (run.out.printvc == VarianceFiles::none) return;
  if (run.control.laplace) {
    writegammafile(populationgammafile, pass.est.gammahat, pass.est.covariance());
  } else {
    unitspecificfiles();
  }
}

// The population-average pass, whose data pass is done, and its files.
void averagephase(Pass& pass, MacroState& state, void (*store)(const PassResults&)) {
  beginmacro(state);
  const PassResults results = workingpass(pass, state);
  passtables(results);
  averagecloses(results);
  store(results);
  if (run.out.printvc != VarianceFiles::none) {
    if (run.control.popavit <= 1) writegammafile(robustpopulationgammafile, results.est.gammahat, results.robust);
    writegammafile(populationgammafile, results.est.gammahat, pass.est.covariance());
  }
  if (run.out.graph) writegraphdata(pass, state.working, state.layout, graphgammas(state));
}

}  // namespace

PassResults estimatenonlinear(const Analysis& analysis, void (*store)(const PassResults&)) {
  MacroState state{analysis};
  state.left = run.control.macroit;
  holdinterrupts();
  Pass pass;
  for (bool first = true;; first = false) {
    beginmacro(state);
    PassResults results = first ? identitypass(pass, state) : workingpass(pass, state);
    passtables(results);
    store(results);  // the next pass of the phase takes its place
    if (!run.files.startvals.empty()) writestartvalues(pass.est);
    if (!first && haveexploratory(run.model)) exploratorytables(exploratory(pass));
    const bool closes = phasecloses(state, results, first);
    if (closes) closephase(pass, state, results);
    Pass next;
    prepareworkingdata(pass, state, {first, state.macro == 2, closes}, next,
                       planof(state, closes ? PassKind::populationaverage : PassKind::pql, state.macro + 1));
    if (first) {
      rescaletaus(state);
      if (!closes) markreport();
    }
    pass = std::move(next);
    if (!closes) continue;
    averagephase(pass, state, store);
    releaseinterrupts();
    return results;
  }
}

void listnonlinearfiles() {
  if (run.out.printvc == VarianceFiles::none) return;
  const bool errors = run.control.fishertype != 0;
  const std::vector<std::string>& made = run.files.made;  // without those of an engine that has failed
  const bool laplace = std::find(made.begin(), made.end(), laplacetaufile) != made.end();
  reportbreak();
  report("%s, containing the taus ", taufile);
  if (errors) {
    report("and the variance-covariance matrix of the taus");
    filelistbreak();
  }
  reportline("has been created.");
  if (laplace) {
    report("tauvcl6, containing the Laplace taus and the variance-covariance matrix of");
    filelistbreak();
    reportline("the taus has been created.");
  }
  report("%s, containing the unit-specific variance-covariance matrix of gamma", unitspecificgammafile);
  filelistbreak();
  report("has been created.\n");
  reportbreak();
  report("%s, containing the population average variance-covariance matrix of", populationgammafile);
  filelistbreak();
  reportline("gamma has been created.");
  report("%s, containing the robust population average variance-covariance", robustpopulationgammafile);
  filelistbreak();
  reportline("matrix of gamma has been created.");
  if (laplace) {
    report("gamvcl6.dat, containing the Laplace variance-covariance matrix of gamma");
    filelistbreak();
    reportline("has been created.");
  }
  endfilelist();
}

}  // namespace kdr
