#include "app/runsequence.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "app/options.h"
#include "command/commandfile.h"
#include "command/complete.h"
#include "command/constraints.h"
#include "command/dialogue.h"
#include "command/writer.h"
#include "construct/construction.h"
#include "construct/fileclashes.h"
#include "construct/mdmdialogue.h"
#include "data/mdm.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/heterogeneous.h"
#include "estimate/linear/linearrun.h"
#include "estimate/linear/weights.h"
#include "estimate/quasi/categoryloop.h"
#include "estimate/quasi/macroloop.h"
#include "kernel/array.h"
#include "report/averagedreport.h"
#include "report/header.h"
#include "report/resultsdocument.h"
#include "report/specification.h"
#include "report/stream.h"
#include "report/symbols.h"
#include "report/variancefiles.h"
#include "series/latentregression.h"
#include "series/resultstore.h"
#include "series/series.h"

namespace kdr {

namespace {

bool fileexists(const std::string& path) {
  struct stat status {};
  return !path.empty() && !overlong(path) && stat(path.c_str(), &status) == 0;
}

// Asks for a name until it is a file's; the end of input ends the asking.
void untilexists(std::string& path, const char* words) {
  while (!fileexists(path)) {
    std::printf("%s file %s does not exist.\n", words, path.c_str());
    if (!readanswer(" Enter new file name: ", path)) fail(14);
  }
}

void askmdmfile() {
  std::string& path = run.files.mdmfile;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("\nEnter name of MDM file: ", path, Question::mdmfile);
    if (path.empty()) continue;
    if (fileexists(path)) return;
    std::printf(" %s does not exist.", path.c_str());
  }
  fail(14);
}

// A standard stream that the caller closed is the null device from now on: no file that the run opens takes its place.
void holdstandardstreams() {
  int stream = 0;
  do {
    stream = open("/dev/null", O_RDWR);
  } while (stream >= STDIN_FILENO && stream <= STDERR_FILENO);
  if (stream >= 0) close(stream);
}

[[noreturn]] void constructionjob() {
  mkmdm();
  printprocessed();
  fail(0);
}

// The engines know neither design weights nor restricted taus: the model that they fit would be another one.
void checkengines() {
  if (run.control.hetit != 0 && !run.model.outcome.linear()) stopwith("HETIT: is for linear models only.\n");
  const char* engine = run.control.laplace ? "Laplace-6" : run.control.agqpoints != 0 ? "adaptive quadrature" : nullptr;
  if (engine == nullptr) return;
  const bool restricted = run.model.restrictions.haveesttau2 || run.model.restrictions.haveesttau3 ||
                          run.model.restrictions.havecontau2 || run.model.restrictions.havecontau3;
  const bool diagonal = run.control.laplace && (run.model.restrictions.diagtaupi || run.model.restrictions.diagtaubeta);
  if (run.model.weighted) stopwith("A run with design weights cannot go on to %s.\n", engine);
  if (restricted || diagonal) stopwith("A run with restricted variance components cannot go on to %s.\n", engine);
}

// What the passes of the run are, once the model stands.
void choosekind() {
  Model& kind = run.model;
  if (run.control.macroit == 0) return;
  if (kind.outcome.single()) run.control.popavit = std::max(run.control.popavit, 1);
  if (kind.outcome.categorical()) kind.restrictions.fixsigma2 = 1.0;
}

// Every model run leaves this file behind, so nothing that the run reads or writes may bear its name.
constexpr const char* newcommandfile = "newcmd.kdr";

// The files of the run, before one of them is opened for writing. A run of its own newcmd.kdr writes that file again.
void checkfiles() {
  const RunFiles& files = run.files;
  std::vector<std::string> inputs{files.mdmfile};
  if (!leadtoone(files.cmdfile, newcommandfile)) inputs.push_back(files.cmdfile);
  std::vector<std::string> outputs{newcommandfile, files.startvals, resultsname()};
  if (!reportisstdout()) outputs.push_back(files.outfile);
  if (run.series.mimode || run.series.pvmode) {
    outputs.push_back(averagedreportname());
    outputs.emplace_back(storename);
    outputs.push_back(files.results);
  }
  if (run.out.printvc != 0) outputs.insert(outputs.end(), {taufile, gammafile, robustgammafile});
  if (run.out.printvc != 0 && !run.model.outcome.linear())
    outputs.insert(outputs.end(), {unitspecificgammafile, populationgammafile, robustpopulationgammafile,
                                   laplacetaufile, laplacegammafile, quadraturetaufile, quadraturegammafile});
  if (run.control.hetit != 0) outputs.emplace_back(heterogeneousfile);
  if (run.out.resfil1) outputs.push_back(files.resfil1name);
  if (run.out.resfil2) outputs.push_back(files.resfil2name);
  if (run.out.resfil3) outputs.push_back(files.resfil3name);
  if (run.out.graph) outputs.push_back(files.graphgammas);
  refuseclashes(inputs, outputs);
  refuseforeignresults();
}

// The answers of the dialogue as a command file, before the question for the report, which may be in vain.
void keepanswers() {
  checkfiles();
  writecommandfile(newcommandfile);
}

void readmodel() {
  untilexists(run.files.mdmfile, "mdm");
  run.mdm.stream = openfile(run.files.mdmfile, "rb");
  if (run.files.sourcename.empty()) run.files.sourcename = run.files.mdmfile;
  if (!run.files.cmdfile.empty()) untilexists(run.files.cmdfile, "Batch");
  readmdm();
  allocatemodel();
  readcommandfile();
  modelquestions();
  constraintquestions();
  makeconstraints();
  if (run.model.coef.ngamma - run.model.nconstrained < 1) fail(17);
  featurequestions();
  labelrandomeffects();
  choosekind();
  outputquestions();
  compactlists();
  markdeletion();
  run.model.weighted = run.model.wgtvar1 != 0 || run.model.wgtvar2 != 0 || run.model.wgtvar3 != 0;
  checkengines();
  if (run.model.weighted) normaliseweights();
  if (!run.series.pvmode || run.series.pvfirst)
    run.model.outname = run.mdm.names1[static_cast<std::size_t>(run.model.outvar)];
  centerlevel3();
}

void openresults() {
  startdocument();
  buildsummary();
  openreport(checkfiles, keepanswers);
  setsymbols();
  makerowlabels();
  writeheader();
  writespecification();
  applyconstraints();
  run.model.coef.ngamma -= run.model.nconstrained;
  beginseries();
  if (!reportisstdout()) std::printf("Computing . . ., please wait\n");
  writecommandfile(newcommandfile);
}

// The estimation by the kind of the run; the results of its passes go to the store of a series.
PassResults estimate(const CategoryTable& table) {
  if (run.model.outcome.single()) return estimatenonlinear(storesubrun);
  if (run.model.outcome.categorical()) return estimatecategories(table, storesubrun);
  PassResults results = estimatelinear();
  storesubrun(results);
  return results;
}

// Moves the model to the next plausible value and leaves it as the command file of the next pass; false when there is
// none.
bool nextplausiblevalue() {
  SeriesMode& series = run.series;
  if (!series.pvmode || series.pvindex + 1 >= series.nsets) return false;
  ++series.pvindex;
  series.pvfirst = false;
  const auto old = static_cast<std::size_t>(series.pvcurrent);
  series.pvcurrent = series.pvlist[static_cast<std::size_t>(series.pvindex)];
  const auto next = static_cast<std::size_t>(series.pvcurrent);
  int* use = run.model.use1.row(0);
  if (use[old] == -1) {
    run.model.outvar = series.pvcurrent;
    use[next] = -1;
  } else {
    ++series.pvpredictor;
    run.model.center1[next] = run.model.center1[old];
    run.model.center1[old] = 0;
    use[next] = 1;
  }
  use[old] = 0;
  run.files.nextcommands = scratchopen();
  writenextcommands(run.files.nextcommands);
  return true;
}

}  // namespace

void runjob(int argc, char** argv) {
  holdstandardstreams();
  outofmemory = [] { fail(3); };
  std::set_new_handler(outofmemory);
  stophooks.closescratch = scratchcloseall;
  stophooks.closeseries = closeseries;
  installhandlers();
  startrun();
  const Options options = readoptions(argc, argv);
  checkscratch();
  bool rawjob = options.templatejob;
  if (run.files.mdmfile.empty() && !rawjob) {
    if (askyesno("\nWill you be starting with raw data?")) {
      mdmdialogue();
      rawjob = true;
    } else {
      askmdmfile();
    }
  }
  if (rawjob) constructionjob();

  clearseries();
  do {
    readmodel();
    const CategoryTable table = run.model.outcome.categorical() ? readcategories() : CategoryTable{};
    openresults();
    const PassResults results = estimate(table);
    if (run.model.outcome.single()) listnonlinearfiles();
    latentvariableregression(results);
    if (run.model.outcome.linear()) listlinearfiles(results);
    closereport();
    writeresults();
    const Pooled* averages = poolseries();
    if (averages == nullptr) continue;
    latentvariableregression(*averages);
    closereport();
    writeaveragedresults();
  } while (nextplausiblevalue());
  endrun();
}

}  // namespace kdr
