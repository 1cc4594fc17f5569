#include "estimate/quasi/categoryloop.h"

#include <cstdio>
#include <utility>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "estimate/linear/exploratory.h"
#include "estimate/linear/runpass.h"
#include "estimate/quasi/categorydata.h"
#include "estimate/quasi/macrocontrol.h"
#include "report/graphdata.h"
#include "report/passtables.h"
#include "report/residual/residualfiles.h"
#include "report/startvaluesfile.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

PassPlan planof(const MacroState& state, int macro) {
  PassPlan plan;
  plan.kind = PassKind::categories;
  plan.macro = macro;
  plan.limit = run.control.numit;
  plan.stopval = run.control.stopval;
  plan.fixsigma2 = 1.0;
  if (macro > 1) plan.start = &state.previous;
  return plan;
}

void closephase(Pass& pass, MacroState& state, const PassResults& results) {
  state.unitspecificgamma = results.est.gammahat.copy();
  if (wantresidualfiles()) writeresidualfiles(pass, state.layout);
  if (run.out.printvc != 0) {
    writetaufile(taufile, results.est, results.errors, false);
    writegammafile(unitspecificgammafile, results.est.gammahat, results.est.covariance());
  }
  if (run.out.graph) writegraphdata(pass, state.layout, graphgammas(state));
}

}  // namespace

PassResults estimatecategories(const CategoryTable& table, void (*store)(const PassResults&)) {
  MacroState state;
  state.left = run.control.macroit;
  Pass pass;
  preparecategoricaldata(table, state, pass, planof(state, 1));
  holdinterrupts();
  for (bool first = true;; first = false) {
    beginmacro(state);
    PassResults results = runpass(pass, state.iterations);
    passtables(results);
    store(results);
    if (!run.files.startvals.empty()) writestartvalues();
    if (haveexploratory()) exploratory(pass);
    if (phasecloses(state, results, first)) {
      closephase(pass, state, results);
      releaseinterrupts();
      std::printf("\n");
      return results;
    }
    Pass next;
    updatecategoricaldata(pass, state, next, planof(state, state.macro + 1));
    pass = std::move(next);
    cutreport();
  }
}

}  // namespace kdr
