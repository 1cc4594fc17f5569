#include "nonlinear/categoryloop.h"

#include <cstdio>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "linear/exploratory.h"
#include "linear/graphdata.h"
#include "linear/residualfiles.h"
#include "linear/runpass.h"
#include "linear/startvaluesfile.h"
#include "linear/variancefiles.h"
#include "nonlinear/categorydata.h"
#include "nonlinear/macrocontrol.h"
#include "report/passtables.h"

namespace kdr {

namespace {

PassResults categorypass(Pass& pass, MacroState& state) {
  CategoryUnits units;
  startcategories(units, state.layout);
  const PassInput input{[&](UnitProducts& unit) { return nextunit(units, unit); }, true, true, {}};
  return runpass(pass, input, state.iterations);
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
  state.left = run.iter.macroit;
  preparecategoricaldata(table, state);
  holdinterrupts();
  for (bool first = true;; first = false) {
    Pass pass;
    beginmacro(state);
    PassPlan plan;
    plan.kind = PassKind::categories;
    plan.macro = state.macro;
    plan.limit = run.iter.numit;
    plan.stopval = run.iter.stopval;
    plan.fixsigma2 = 1.0;
    if (!first) plan.start = &state.previous;
    beginpass(pass, plan);
    PassResults results = categorypass(pass, state);
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
    updatecategoricaldata(pass, state);
    cutreport();
  }
}

}  // namespace kdr
