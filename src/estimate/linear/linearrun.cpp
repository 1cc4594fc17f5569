#include "estimate/linear/linearrun.h"

#include <string>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/exploratory.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/recordunits.h"
#include "estimate/linear/runpass.h"
#include "report/graphdata.h"
#include "report/modelstatistics.h"
#include "report/passtables.h"
#include "report/residual/residualfiles.h"
#include "report/resultsdocument.h"
#include "report/startvaluesfile.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

constexpr int farlimit = 10000;  // iterations when the user goes on at the limit

PassPlan linearplan() {
  PassPlan plan;
  plan.fixsigma2 = run.model.restrictions.fixsigma2;
  plan.hetit = run.control.hetit;
  plan.limit = run.control.numit;
  plan.stopval = run.control.stopval;
  plan.farlimit = farlimit;
  return plan;
}

// The pass over the blocks of the MDM file, which become the working data file when a later reader needs the records.
PassResults linearpass(Pass& pass) {
  RecordUnits units;
  startrecords(units);
  if (run.out.resfil1 || run.out.graph) units.working = startworking();
  datapass(pass, [&](UnitProducts& unit) {
    if (nextunit(units, unit)) return true;
    if (units.working != nullptr) finishworking(units.working);
    return false;
  });
  IterationState state;
  return runpass(pass, state);
}

void variancefiles(const PassResults& results) {
  writegammafile(robustgammafile, results.est.gammahat, results.robust);
  writetaufile(taufile, results.est, results.errors, true);
  writegammafile(gammafile, results.est.gammahat, results.est.covariance());
}

// Residual files and graph data file. A run without any iteration has no residuals.
void resultfiles(Pass& pass, bool ordinary) {
  if (!wantresidualfiles() && !run.out.graph) return;
  // A run without an ordinary stage has made no variance tests, which leave the least-squares residuals of level 3.
  if (!ordinary) static_cast<void>(variancetests(pass));
  const RecordLayout layout = mdmlayout();
  if (wantresidualfiles()) writeresidualfiles(pass, layout);
  if (run.out.graph) writegraphdata(pass, layout);
}

}  // namespace

PassResults estimatelinear() {
  Pass pass;
  beginpass(pass, linearplan());
  PassResults results = linearpass(pass);
  const bool ordinary = !results.heterogeneous, iterated = results.loglik != missingcode;
  if (iterated && results.ending != Ending::converged)
    notconverged(reportisstdout() ? "" : "\nThe iterations were stopped prior to convergence.\n");
  if (iterated && ordinary && results.ending == Ending::converged)
    if (const std::string words = unsettledwords(results); !words.empty()) {
      notconverged(reportisstdout() ? "" : words + "\n");
      documentwarning(words);
    }
  if (ordinary) {
    passtables(results);
    if (!run.files.startvals.empty()) writestartvalues();
    if (run.out.printvc != 0) variancefiles(results);
  }
  if (iterated) {
    modelstatistics(results.loglik, ordinary ? 2 : 1);
  } else {
    reportline("No iterations were asked for, so there is no likelihood to report.");
  }
  if (ordinary && haveexploratory()) exploratory(pass);
  if (iterated) {
    resultfiles(pass, ordinary);
  } else if (wantresidualfiles() || run.out.graph) {
    reportline("No iterations were asked for, so there are no residual or graph files.");
  }
  return results;
}

void listlinearfiles(const PassResults& results) {
  if (!results.heterogeneous && run.out.printvc != 0) listvariancefiles();
}

}  // namespace kdr
