#include "estimate/quasi/macroloop.h"

#include <algorithm>
#include <cstdio>
#include <string>
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
#include "report/graphdata.h"
#include "report/passtables.h"
#include "report/residual/residualfiles.h"
#include "report/startvaluesfile.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

// The mean outcome of the identity pass, and the variance that the outcome type implies there.
double impliedvariance(double mean) {
  if (run.model.outcome.family == Family::poisson) return mean;
  if (!(mean > 0.0 && mean < 1.0)) {
    report("\nThe outcome variable must take on values between 0 and 1.\n");
    std::printf("\nThe outcome variable must take on values between 0 and 1.\n");
    stoprun(100);
  }
  return mean * (1.0 - mean);
}

PassPlan planof(const MacroState& state, PassKind kind, int macro) {
  PassPlan plan;
  plan.kind = kind;
  plan.macro = macro;
  plan.limit = run.control.numit;
  plan.stopval = run.control.stopval;
  plan.fixsigma2 = run.model.restrictions.fixsigma2;
  if (kind != PassKind::identity) plan.start = &state.previous;
  plan.freshgamma = kind == PassKind::pql && macro == 2;
  return plan;
}

// A pass over the blocks of the MDM file, which become the first working data file.
PassResults identitypass(Pass& pass, MacroState& state) {
  beginpass(pass, planof(state, PassKind::identity, state.macro));
  RecordUnits units;
  startrecords(units);
  units.working = startworking();
  if (run.model.outcome.counted) state.counts.reset(at(run.mdm.numl1rec));
  units.counts = run.model.outcome.counted ? &state.counts : nullptr;
  double outcomes = 0.0, counts = 0.0;
  datapass(pass, [&](UnitProducts& unit) {
    if (!nextunit(units, unit)) {
      finishworking(units.working);
      return false;
    }
    for (std::size_t i = 0; i < at(unit.nj); ++i) {
      const double* record = units.unit.records.data() + i * at(units.layout.width);
      outcomes += record[units.layout.observed];
      counts += run.model.outcome.counted ? record[units.layout.count] : 1.0;
    }
    return true;
  });
  state.layout = mdmlayout();
  return runpass(pass, state.iterations, [&] { return impliedvariance(state.mean = outcomes / counts); });
}

// A pass over working data, whose data pass is done.
PassResults workingpass(Pass& pass, MacroState& state) {
  PassResults results = runpass(pass, state.iterations);
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
  state.unitspecificgamma = run.est.gammahat.copy();
  if (wantresidualfiles()) writeresidualfiles(pass, state.layout);
  markreport();
  const bool engines = run.control.laplace || run.control.agqpoints != 0;
  const auto unitspecificfiles = [&] {
    writetaufile(taufile, run.est, results.errors, false);
    writegammafile(unitspecificgammafile, run.est.gammahat, run.est.covariance());
  };
  if (engines && run.out.printvc != 0) unitspecificfiles();
  if (engines) maximumlikelihood(pass, state, results);
  if (run.out.printvc == 0) return;
  if (run.control.laplace) {
    writegammafile(populationgammafile, run.est.gammahat, run.est.covariance());
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
  if (run.out.printvc != 0) {
    if (run.control.popavit <= 1) writegammafile(robustpopulationgammafile, results.est.gammahat, results.robust);
    writegammafile(populationgammafile, results.est.gammahat, run.est.covariance());
  }
  if (run.out.graph) writegraphdata(pass, state.layout, graphgammas(state));
}

}  // namespace

PassResults estimatenonlinear(void (*store)(const PassResults&)) {
  MacroState state;
  state.left = run.control.macroit;
  holdinterrupts();
  Pass pass;
  for (bool first = true;; first = false) {
    beginmacro(state);
    PassResults results = first ? identitypass(pass, state) : workingpass(pass, state);
    passtables(results);
    store(results);  // the next pass of the phase takes its place
    if (!run.files.startvals.empty()) writestartvalues();
    if (!first && haveexploratory()) exploratory(pass);
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
  if (run.out.printvc == 0) return;
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
