#include "app/bootstrapjob.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/bootstrap/chainbootstrap.h"
#include "estimate/bootstrap/linearbootstrap.h"
#include "report/intervaltables.h"
#include "report/resultsdocument.h"

namespace kdr {

namespace {

// What is asked for, with progress on the console and the interrupt key, which ends it with what it has.
BootstrapRequest requestof(const Analysis& analysis) {
  BootstrapRequest request{run.id.bootstrap, run.id.seed, run.id.cases, analysis.threads, {}, interrupted};
  const int step = std::max(1, run.id.bootstrap / 10);
  int told = 0;
  request.progress = [step, told](int done) mutable {
    checksignals();
    if (done / step <= told / step) return;
    told = done;
    std::printf("Bootstrap: %d of %d replicates\n", done, run.id.bootstrap);
    std::fflush(stdout);
  };
  return request;
}

void tell(const BootstrapResults& results, const char* phase) {
  const std::string words = bootstrapwords(results);
  std::printf("%s\n", words.c_str());
  if (2 * results.failed > results.tried || results.tried < results.asked) {
    notconverged("");
    documentwarning(words);
  }
  bootstraptable(results);
  documentbootstrap(phase, results);
}

}  // namespace

void checkbootstrap() {
  if (run.id.bootstrap == 0) return;
  if (run.series.mimode || run.series.pvmode) stopwith("-bootstrap is for single runs, not for series.\n");
  if (const std::string words = bootstrapobstacle(run.model, run.control, run.id.cases); !words.empty())
    stopwith("%s\n", words.c_str());
}

void bootstrapjob(LinearFit& fit, const PassResults& results) {
  if (run.id.bootstrap == 0) return;
  BootstrapResults made;
  holdinterrupts();
  const Failure failure =
      bootstraplinear(fit.pass, results.est, results.restricted ? Criterion::restricted : Criterion::full,
                      requestof(*fit.pass.analysis), made);
  releaseinterrupts();
  stopif(failure);
  tell(made, "final");
}

void bootstrapjob(const ChainFit& fit) {
  if (run.id.bootstrap == 0) return;
  const MacroState& state = fit.state;
  const bool engine = state.quadrature || state.laplace6;
  const Estimates& est = state.quadrature ? state.quadrature->est
                         : engine         ? state.laplace6->est
                                          : state.unitspecific.est;
  BootstrapResults made;
  holdinterrupts();
  const Failure failure = bootstrapchain(fit, est, requestof(state.analysis), made);
  releaseinterrupts();
  stopif(failure);
  tell(made, state.quadrature ? "quadrature" : engine ? "laplace6" : "pql");
}

}  // namespace kdr
