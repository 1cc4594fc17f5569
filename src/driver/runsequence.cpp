#include "driver/runsequence.h"

#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "data/construction.h"
#include "data/mdm.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/options.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/array.h"
#include "linear/estimate.h"
#include "linear/weights.h"
#include "model/commandfile.h"
#include "model/complete.h"
#include "model/constraints.h"
#include "model/dialogue.h"
#include "model/writer.h"
#include "report/header.h"
#include "report/specification.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

bool fileexists(const std::string& path) {
  struct stat status {};
  return !path.empty() && stat(path.c_str(), &status) == 0;
}

// Asks for a name until it is a file's; the end of input ends the asking.
void untilexists(std::string& path, const char* words) {
  while (!fileexists(path)) {
    std::printf("%s file %s does not exist.\n Enter new file name: ", words, path.c_str());
    if (!readanswer(path)) fail(14);
    path.resize(std::min<std::size_t>(path.size(), maxpath - 1));
  }
}

void askmdmfile() {
  std::string& path = run.files.mdmfile;
  for (int tries = 0; tries < maxtries; ++tries) {
    std::printf("\nEnter name of MDM file: ");
    readanswer(path);
    path.resize(std::min<std::size_t>(path.size(), maxpath - 1));
    if (path.empty()) continue;
    if (fileexists(path)) return;
    std::printf(" %s does not exist.", path.c_str());
  }
  fail(14);
}

[[noreturn]] void constructionjob() {
  mkmdm();
  printprocessed();
  fail(0);
}

// A keyword whose engine this version does not have yet ends the run here, before anything is written.
void refuseabsentengines() {
  struct Absent {
    bool wanted;
    const char* what;
  };
  const Absent absent[] = {
      {run.kind.nonlin != 0, "estimate non-linear models"},
      {run.series.mimode, "pool multiply imputed data sets"},
      {run.series.pvmode, "pool plausible values"},
      {run.iter.agqpoints != 0, "do adaptive quadrature"},
      {run.out.lvr, "do latent variable regressions"},
      {run.out.resfil1 || run.out.resfil2 || run.out.resfil3, "write residual files"},
      {run.out.graph, "write graph data files"},
  };
  for (const Absent& engine : absent)
    if (engine.wanted) stopwith("This version of %s cannot %s yet.\n", module, engine.what);
}

// Marks every variable of the model as one without which a level-1 record cannot be used.
void finishdeletion() {
  if (run.mdm.deletednow) return;
  for (int v = 1; v <= run.mdm.nvar1; ++v) {
    int& mark = run.model.delete1[static_cast<std::size_t>(v) - 1];
    if (mark == 2) continue;
    bool used = v == run.out.wgtvar1 || v == run.out.autovknown || (run.kind.nlcount && v == run.kind.nlcntvar);
    for (int e = 0; e < run.kind.neqsets; ++e) used = used || run.model.use1.row(e)[v] != 0;
    mark = used ? 1 : 0;
  }
}

// Grand-mean centering of the level-3 variables, which are held in memory.
void centerlevel3() {
  const int width = run.mdm.nvar3;
  for (int v = 1; v <= width; ++v) {
    if (run.model.center3[static_cast<std::size_t>(v)] == 0) continue;
    const double mean = run.mdm.mean3[static_cast<std::size_t>(v) - 1];
    for (int k = 0; k < run.mdm.nunits3; ++k)
      run.mdm.level3[static_cast<std::size_t>(k) * static_cast<std::size_t>(width) + static_cast<std::size_t>(v) - 1] -=
          mean;
  }
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
  if (run.coef.ngamma - run.model.nconstrained < 1) fail(17);
  featurequestions();
  droprandomlesslabels();
  outputquestions();
  compactlists();
  refuseabsentengines();
  finishdeletion();
  run.kind.weighted = run.out.wgtvar1 != 0 || run.out.wgtvar2 != 0 || run.out.wgtvar3 != 0;
  if (run.kind.weighted) normaliseweights();
  run.kind.outname = run.mdm.names1[static_cast<std::size_t>(run.kind.outvar)];
  centerlevel3();
}

// Every model run leaves this file behind, so nothing that the run reads or writes may bear its name.
constexpr const char* newcommandfile = "newcmd.kdr";

void openresults() {
  if (samefile(newcommandfile, run.files.mdmfile) || run.files.outfile == newcommandfile)
    stopwith("The name %s is that of the command file which every run leaves. Please choose another one.\n",
             newcommandfile);
  buildsummary();
  openreport();
  setsymbols();
  makerowlabels();
  writeheader();
  writespecification();
  droplabels();
  applyconstraints();
  run.coef.ngamma -= run.model.nconstrained;
  if (!reportisstdout()) std::printf("Computing . . ., please wait\n");
  writecommandfile(newcommandfile);
}

}  // namespace

void runjob(int argc, char** argv) {
  outofmemory = [] { fail(3); };
  stophooks.closescratch = scratchcloseall;
  installhandlers();
  startrun();
  const Options options = readoptions(argc, argv);
  bool rawjob = options.templatejob;
  if (run.files.mdmfile.empty() && !rawjob) {
    if (askyesno("\nWill you be starting with raw data?")) {
      stopwith("This version of %s cannot make an mdm file by dialogue yet. Please give a template with -r.\n", module);
    } else {
      askmdmfile();
    }
  }
  if (rawjob) constructionjob();

  readmodel();
  openresults();
  estimate();
  closereport();
  fail(0);
}

}  // namespace kdr
