#include "app/runobserver.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "app/nonlinearjob.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "estimate/linear/fixtau.h"
#include "estimate/linear/heterogeneous.h"
#include "report/filecell.h"
#include "report/matrixtables.h"
#include "report/passtables.h"
#include "report/residual/columns.h"
#include "report/residual/residualfiles.h"
#include "report/resultsdocument.h"

namespace kdr {

namespace {

// The log-likelihoods.

// One of the last log-likelihoods, for the printed tail.
struct TailEntry {
  int iteration;
  double loglik;
};

struct Progress {
  TailEntry last[5] = {};
  int entries = 0;

  void add(int iteration, double loglik) {
    if (entries == 5) {
      std::copy(last + 1, last + 5, last);
      --entries;
    }
    last[entries++] = {iteration, loglik};
  }
};

void reportlikelihood(const TailEntry& entry) {
  reportline("The value of the %slog-likelihood function at iteration %d = %E",
             run.control.restricted ? "restricted " : "", entry.iteration, entry.loglik);
}

void showlikelihood(const IterationEvent& event) {
  if (reportisstdout()) return;
  if (event.kind == PassKind::linear) {
    std::printf("The value of the %slog-likelihood function at iteration %d = %E\n",
                run.control.restricted ? "restricted " : "", event.iteration, event.loglik);
  } else {
    std::printf("For macro %d/micro iteration %d, the log-likelihood is = %E\n", event.macro, event.iteration,
                event.loglik);
  }
}

void reporttail(const Progress& progress, bool earlier) {
  for (int dots = 0; dots < 3; ++dots) {
    reportblank(51);
    reportline(".");
  }
  for (int i = 0; earlier && i + 1 < progress.entries; ++i) reportlikelihood(progress.last[i]);
}

void telliteration(Progress& progress, const IterationEvent& event) {
  constexpr int shown = 5;  // iterations whose line stands in the report of a linear run
  const bool late = event.iteration > shown, debugging = run.control.debug != 0;
  progress.add(event.iteration, event.loglik);
  showlikelihood(event);
  if (!run.out.fulloutput) return;
  if (event.atlimit || (!debugging && late && event.last)) reporttail(progress, late);
  if (!event.last && !debugging && (event.kind != PassKind::linear || !late))
    reportlikelihood({event.iteration, event.loglik});
}

void tellsearch(const SearchEvent& event) {
  const bool linear = event.kind == PassKind::linear;
  const std::string line =
      linear ? formatted("At iteration %d a search for the maximum raised the log-likelihood by %.3E", event.iteration,
                         event.gain)
             : formatted("For macro %d/micro iteration %d, a search raised the log-likelihood by %.3E", event.macro,
                         event.iteration, event.gain);
  if (!reportisstdout()) std::printf("%s\n", line.c_str());
  if (linear) reportline("%s", line.c_str());
}

// Starting values.

void tellstart(const StartingEvent& event) {
  using Part = StartingEvent::Part;
  const Coefficients& coef = run.model.coef;
  const Array<double>&T = event.est.taupi, &L = event.est.taubeta;
  if (event.part == Part::taupi) {
    if (event.shared) {
      reportbreak();
      reportline(" The units have too few records for fits of their own, so the starting values share out the");
      reportline(" residual variance.");
    }
    if (event.frommoments)
      report2(" For starting values, data from %d level-1 and %d level-2 records were used\n",
              "For starting values, data from %d level-1 and %d level-2 records were used<br>\n", event.records,
              event.units);
  }
  if (!run.out.fulloutput) return;
  switch (event.part) {
    case Part::taupi:
      sectionheading("STARTING VALUES", "Starting Values", 15);
      report(" %s(0) = %12.5f\n\n", run.sym.symvar1.c_str(), event.est.sigma2);
      return tautable(Tau::pi, MatrixTitle::plain, true, coef.ntaupi, T.data());
    case Part::repairedtaupi:
      return tautable(Tau::pi, MatrixTitle::renewed, true, coef.ntaupi, T.data());
    case Part::taubeta:
      return tautable(Tau::beta, MatrixTitle::plain, true, coef.ntaubeta, L.data());
    case Part::repairedtaubeta:
      return tautable(Tau::beta, MatrixTitle::renewed, true, coef.ntaubeta, L.data());
  }
}

void tellbeginning() {
  if (run.report.stream != nullptr) std::fflush(run.report.stream);
  if (reportisstdout()) return;
  std::printf("Starting values computed.  Iterations begun.\n");
  std::printf("Should you wish to terminate the iterations prior to convergence, enter cntl-c\n");
  std::fflush(stdout);
}

// The dialogue about a starting tau.

void showtau(const TauRepair& repair) {
  if (!reportisstdout()) std::printf("\n Tau(%s)(0)\n", nameof(repair.which));
  for (int i = 0; i < repair.n; ++i) {
    const Name& label = ofthe(repair.which, run.model.coef.pinames, run.model.coef.betanames1)[i];
    std::printf(" %.9s ", label.text);
    for (int j = 0; j < repair.n; ++j) std::printf("%12.5f ", repair.tau[i * repair.n + j]);
    std::printf("\n");
  }
  std::printf("\n");
  ofthe(repair.which, run.series.showntau2, run.series.showntau3) = true;
}

RepairChoice askchoice() {
  return static_cast<RepairChoice>(asknumber(
      "Do you wish to:\n   Set all off diagonal elements to 0?  Enter 1.\n   Manually reset values?               "
      "Enter "
      "2.\n   Automatic fixup?                     Enter 3.\n   Quit?                                Enter 4.\n   Your "
      "choice = ",
      1, 4));
}

// Reads a new value into `value`: an empty line leaves it, a line that is no number is asked again.
bool askvalue(const char* prompt, double& value) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    if (!readanswer(prompt, line, Question::unchanged)) continue;  // the end of input is no answer
    if (line.find_first_not_of(" \t") == std::string::npos) return false;
    if (const std::optional<double> number = realof(line)) {
      value = *number;
      return true;
    }
    tellnonumber(line, "number");
  }
  noproperresponse();
}

void resetelements(const TauRepair& repair) {
  const int n = repair.n;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      if (fixedelement(repair.fixed, n, i, j)) {
        std::printf("Tau(%d,%d) fixed by esttau\n", i, j);
      } else if (equalelement(repair.equal, i, j)) {
        std::printf("Tau(%d,%d) constrained by contau\n", i, j);
      } else {
        double value = repair.tau[i * n + j];
        std::printf("The current value of Tau(%d,%d) is %f\n", i, j, value);
        const std::string prompt = formatted("Reset Tau(%d,%d) to (hit return to leave unchanged) ", i, j);
        if (askvalue(prompt.c_str(), value)) repair.tau[i * n + j] = repair.tau[j * n + i] = value;
      }
    }
}

void resetgammas(const TauRepair& repair) {
  Array<double>& gammahat = repair.est.gammahat;
  double& sigma2 = repair.est.sigma2;
  if (askyesno("Do you want to change the gammas?")) {
    for (int i = 0; i < run.model.coef.ngamma; ++i) {
      const auto show = [](const char* format, const Label& label) {
        std::string text = label.text;
        text.erase(text.find_last_not_of(' ') + 1);
        if (!text.empty()) std::printf("%s%s\n", format, text.c_str());
        return text;
      };
      show(" For ", run.model.coef.gammanames1[i]);
      show("    For ", run.model.coef.gammanames2[i]);
      std::printf("The current value of %s is %f\n", run.model.coef.gammanames3[i].text, gammahat[i]);
      askvalue("Reset gamma to (hit return to leave unchanged) ", gammahat[i]);
    }
  }
  std::printf("Sigma(0)_squared = %f\n", sigma2);
  if (askyesno("Would you like to change it? ") && askvalue("Enter new value for sigma ", sigma2))
    std::printf("New sigma(0)_squared = %f\n", sigma2);
}

void tellbadtau(const BadTau& bad) {
  if (bad.why == BadTau::Why::unitcorrelation) return correlationtable(bad.which, bad.n, bad.tau);
  std::printf("Unable to compute Tau(%s)(0)\n", nameof(bad.which));
  tautable(bad.which, MatrixTitle::plain, true, bad.n, bad.tau);
}

// The heterogeneous stage.

void writeunittaupi(std::FILE* file, int k, const double* T, int p) {
  constexpr int perline = 60;
  const Id id = level3id(run.mdm, k);
  if (const std::string* whole = run.mdm.texts.wholeid(3, id, run.mdm.numericids)) {
    std::fprintf(file, "%12s", whole->c_str());
  } else if (run.mdm.numericids) {
    std::fprintf(file, "%12.0f", id.number);
  } else {
    std::fprintf(file, "%12.12s", id.text.text);
  }
  int written = 0;
  for (int i = 0; i < p; ++i)
    for (int j = 0; j <= i; ++j) {
      if (written != 0 && written % perline == 0) std::fprintf(file, "\n");
      std::fprintf(file, "%s", filecell(T[i * p + j], 15, 7).c_str());
      ++written;
    }
  std::fprintf(file, "\n");
}

void tellheterogeneous(const HeterogeneousResults& results) {
  const int p = run.model.coef.ntaupi;
  iterationtables(results.stage);
  ResultFile file;
  opentext(file, heterogeneousfile);
  for (int k = 0; k < run.mdm.nunits3; ++k) writeunittaupi(file.stream, k, results.taupi.row(k), p);
  finishresult(file);
  documentheterogeneous(results.stage, results.mean, results.weightedmean);
  tautable(Tau::pi, MatrixTitle::average, false, p, results.mean.data());
  tautable(Tau::pi, MatrixTitle::weightedaverage, false, p, results.weightedmean.data());
  fixedeffectstables(results.stage);
}

// What the interrupt key was pressed for: true to stop iterating. Answer 1 ends the run. Laplace-6 and quadrature are
// not begun, or end, after a stop.
bool askinterrupt() {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("Enter 0 to stop iterating, 1 to exit now", line, Question::interrupt);
    const std::optional<int> answer = wholeof(line);
    if (answer == 1) fail(0);
    if (answer == 0) {
      rearminterrupts();
      return true;
    }
  }
  noproperresponse();
}

bool asklimit() {
  return askyesno(
             "\nThe maximum number of iterations has been reached, but the analysis has\nnot converged. Do you want "
             "to continue until convergence?") != 0;
}

}  // namespace

Observer runobserver() {
  Observer observer;
  observer.dataread = [](PassKind kind, int records) {
    run.id.records = records;
    deletionnote();
    if (kind != PassKind::linear) markreport();
  };
  if (!run.files.results.empty()) observer.recordsread = documentrecords;
  observer.leastsquares = [](const LeastSquaresResults& results) {
    documentleastsquares(results);
    leastsquarestables(results);
  };
  observer.starting = tellstart;
  observer.iterationsbegin = tellbeginning;
  const auto progress = std::make_shared<Progress>();
  observer.stagebegins = [progress] {
    *progress = {};
    holdinterrupts();
  };
  observer.stageends = releaseinterrupts;
  observer.iteration = [progress](const IterationEvent& event) { telliteration(*progress, event); };
  observer.iterationresults = iterationtables;
  observer.searched = tellsearch;
  observer.heterogeneous = tellheterogeneous;
  observer.badtau = tellbadtau;
  observer.goon = asklimit;
  observer.limitraised = [](int limit) { std::printf("Setting number of iterations to %d.\n\n", limit); };
  observer.unusabletau = showtau;
  observer.chooserepair = [](const TauRepair&) { return askchoice(); };
  observer.changetau = resetelements;
  observer.changeothers = resetgammas;
  observer.poll = [] {
    checksignals();
    return false;
  };
  observer.interrupted = interrupted;
  observer.confirmstop = askinterrupt;
  observechain(observer);
  return observer;
}

Analysis analysisofrun(const Observer& observer, const Estimates* start) {
  Analysis analysis{run.model, run.mdm, run.weights, run.control, observer, {}, {}, 1, start};
  analysis.wanted.unitrows = run.out.resfil1 || run.out.resfil2 || run.out.graph || run.out.effects;
  analysis.wanted.records = run.out.resfil1 || run.out.graph;
  analysis.wanted.fitted = run.out.resfil1;
  analysis.wanted.variables1.assign(run.out.res1vars1.begin(), run.out.res1vars1.begin() + run.out.nres1vars1);
  const bool infiles = residualsofengine() && (wantresidualfiles() || run.out.graph);
  analysis.wanted.posteriors =
      lastengine(run.control).has_value() && (infiles || run.out.effects || !run.files.predict.empty());
  analysis.wanted.leastsquares = run.out.fulloutput;
  analysis.wanted.curves = !run.files.results.empty();
  analysis.store.inmemory = run.id.inmemory;
  const unsigned cores = std::thread::hardware_concurrency();
  analysis.threads = run.id.threads > 0 ? run.id.threads : cores > 0 ? static_cast<int>(cores) : 1;
  return analysis;
}

}  // namespace kdr
