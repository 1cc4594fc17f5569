#include "driver/runsequence.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "data/construction.h"
#include "data/mdm.h"
#include "data/mdmdialogue.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/options.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/array.h"
#include "linear/estimate.h"
#include "linear/heterogeneous.h"
#include "linear/variancefiles.h"
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
    std::printf("%s file %s does not exist.\n", words, path.c_str());
    if (!readanswer(" Enter new file name: ", path)) fail(14);
    path.resize(std::min<std::size_t>(path.size(), maxpath - 1));
  }
}

void askmdmfile() {
  std::string& path = run.files.mdmfile;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("\nEnter name of MDM file: ", path);
    path.resize(std::min<std::size_t>(path.size(), maxpath - 1));
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

// A keyword whose engine this version does not have yet ends the run here, before anything is written.
void refuseabsentengines() {
  struct Absent {
    bool wanted;
    const char* what;
  };
  const Absent absent[] = {
      {run.kind.nonlin != 0, "estimate non-linear models"}, {run.series.mimode, "pool multiply imputed data sets"},
      {run.series.pvmode, "pool plausible values"},         {run.iter.agqpoints != 0, "do adaptive quadrature"},
      {run.out.lvr, "do latent variable regressions"},
  };
  for (const Absent& engine : absent)
    if (engine.wanted) stopwith("This version of %s cannot %s yet.\n", module, engine.what);
}

std::filesystem::path canonical(const std::string& path) {
  std::error_code problem;
  std::filesystem::path whole = std::filesystem::weakly_canonical(path, problem);
  return problem ? std::filesystem::path(path) : std::filesystem::absolute(whole, problem);
}

// Every model run leaves this file behind, so nothing that the run reads or writes may bear its name.
constexpr const char* newcommandfile = "newcmd.kdr";

// A result file that would stand where a file of the same run stands ends the run before anything is written.
void refuseclashes() {
  struct Result {
    bool wanted;
    const std::string& path;
  };
  const Result results[] = {{run.out.resfil1, run.files.resfil1name},
                            {run.out.resfil2, run.files.resfil2name},
                            {run.out.resfil3, run.files.resfil3name},
                            {run.out.graph, run.files.graphgammas}};
  std::set<std::filesystem::path> taken;
  for (const std::string* input : {&run.files.mdmfile, &run.files.cmdfile, &run.files.outfile, &run.files.startvals})
    if (!input->empty()) taken.insert(canonical(*input));
  taken.insert(canonical(newcommandfile));
  if (run.out.printvc != 0)
    for (const char* name : {taufile, gammafile, robustgammafile}) taken.insert(canonical(name));
  if (run.iter.hetit != 0) taken.insert(canonical(heterogeneousfile));
  for (const Result& result : results) {
    std::error_code problem;
    const bool device =
        std::filesystem::exists(result.path, problem) && !std::filesystem::is_regular_file(result.path, problem);
    if (result.wanted && !device && !taken.insert(canonical(result.path)).second)
      stopwith("The result file %s has the name of another file of this run\n", result.path.c_str());
  }
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
  labelrandomeffects();
  outputquestions();
  compactlists();
  refuseabsentengines();
  refuseclashes();
  finishdeletion();
  run.kind.weighted = run.out.wgtvar1 != 0 || run.out.wgtvar2 != 0 || run.out.wgtvar3 != 0;
  if (run.kind.weighted) normaliseweights();
  run.kind.outname = run.mdm.names1[static_cast<std::size_t>(run.kind.outvar)];
  centerlevel3();
}

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
  applyconstraints();
  run.coef.ngamma -= run.model.nconstrained;
  if (!reportisstdout()) std::printf("Computing . . ., please wait\n");
  writecommandfile(newcommandfile);
}

}  // namespace

void runjob(int argc, char** argv) {
  holdstandardstreams();
  outofmemory = [] { fail(3); };
  stophooks.closescratch = scratchcloseall;
  installhandlers();
  startrun();
  const Options options = readoptions(argc, argv);
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

  readmodel();
  openresults();
  estimate();
  closereport();
  fail(0);
}

}  // namespace kdr
