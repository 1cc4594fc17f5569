#include "app/linearjob.h"

#include <string>
#include <utility>

#include "app/bootstrapjob.h"
#include "app/predictionjob.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/convergence.h"
#include "estimate/inference/modelstatistics.h"
#include "estimate/linear/exploratory.h"
#include "estimate/linear/inference.h"
#include "estimate/linear/linearrun.h"
#include "estimate/linear/recordunits.h"
#include "report/exploratorytables.h"
#include "report/graphdata.h"
#include "report/modelstatistics.h"
#include "report/passtables.h"
#include "report/residual/residualfiles.h"
#include "report/resultsdocument.h"
#include "report/startvaluesfile.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

void variancefiles(const PassResults& results) {
  writegammafile(robustgammafile, results.est.gammahat, results.robust);
  writetaufile(taufile, results.est, results.errors, true);
  writegammafile(gammafile, results.est.gammahat, results.covariance);
}

// Residual files and graph data file. A run without any iteration has no residuals.
void resultfiles(LinearFit& fit, bool ordinary) {
  if (!wantresidualfiles() && !run.out.graph) return;
  // A run without an ordinary stage has made no variance tests, which leave the least-squares residuals of level 3.
  if (!ordinary) static_cast<void>(variancetests(fit.pass));
  const RecordLayout layout = mdmlayout(run.model, run.mdm);
  const ResidualSource source{fit.pass, fit.working, layout, ordinary ? "final" : "heterogeneous", {}};
  if (wantresidualfiles()) writeresidualfiles(source);
  if (run.out.graph) writegraphdata(source);
}

}  // namespace

PassResults linearjob(const Analysis& analysis) {
  LinearFit fit;
  stopif(fitlinear(analysis, fit));
  PassResults& results = fit.results;
  const bool ordinary = !results.heterogeneous, iterated = results.loglik.has_value();
  if (endedearly(results))
    notconverged(reportisstdout() ? "" : "\nThe iterations were stopped prior to convergence.\n");
  if (const std::string words = unsettledwords(results); !words.empty())
    notconverged(reportisstdout() ? "" : words + "\n");
  if (ordinary) {
    documentpass(results);
    if (iterated) documenteffects("final", fit.pass);
    passtables(results);
    if (!run.files.startvals.empty()) writestartvalues(results.est);
    if (run.out.printvc != VarianceFiles::none) variancefiles(results);
  }
  if (iterated) {
    modelstatistics(results);
    if (results.restricted && run.out.deviance) documentwarning(samefixedeffects);
  } else {
    reportline("No iterations were asked for, so there is no likelihood to report.");
  }
  if (iterated && ordinary) bootstrapjob(fit, results);
  if (iterated && ordinary) {
    keepuniteffects(fit.pass);
    writepredictions(analysis, results, true);
  }
  if (ordinary && haveexploratory(run.model)) {
    const ExploratoryAnalysis analysed = exploratory(fit.pass);
    stopif(storefailure(fit.pass.store));
    exploratorytables(analysed);
  }
  if (iterated) {
    resultfiles(fit, ordinary);
  } else if (wantresidualfiles() || run.out.graph) {
    reportline("No iterations were asked for, so there are no residual or graph files.");
  }
  return std::move(results);
}

void listlinearfiles(const PassResults& results) {
  if (!results.heterogeneous && run.out.printvc != VarianceFiles::none) listvariancefiles();
}

}  // namespace kdr
