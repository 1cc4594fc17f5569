#include "app/runsequence.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "app/bootstrapjob.h"
#include "app/fitdialogue.h"
#include "app/fitsummary.h"
#include "app/linearjob.h"
#include "app/nonlinearjob.h"
#include "app/nullmodel.h"
#include "app/options.h"
#include "app/predictionjob.h"
#include "app/runobserver.h"
#include "app/seriesrun.h"
#include "command/commandfile.h"
#include "command/complete.h"
#include "command/constraints.h"
#include "command/dialogue.h"
#include "command/formula/fit.h"
#include "command/reader.h"
#include "command/writer.h"
#include "construct/construction.h"
#include "construct/fileclashes.h"
#include "construct/longfile.h"
#include "construct/mdmdialogue.h"
#include "construct/onefile.h"
#include "construct/singleunits.h"
#include "core/constraints.h"
#include "core/formatted.h"
#include "data/mdm.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "driver/warnings.h"
#include "estimate/likelihood/engines.h"
#include "estimate/linear/centering.h"
#include "estimate/linear/deletion.h"
#include "estimate/linear/restrictedfit.h"
#include "estimate/linear/weights.h"
#include "estimate/quasi/categories.h"
#include "kernel/array.h"
#include "report/averagedreport.h"
#include "report/enginetables.h"
#include "report/header.h"
#include "report/latentreport.h"
#include "report/passtables.h"
#include "report/residual/residualfiles.h"
#include "report/resultsdocument.h"
#include "report/specification.h"
#include "report/startvaluesfile.h"
#include "report/stream.h"
#include "report/symbols.h"
#include "report/variancefiles.h"
#include "series/latentregression.h"
#include "series/resultstore.h"

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

// What the run begins with: raw data, and the file where it was named in the place of a y or n; or an MDM file.
struct Beginning {
  bool raw = false;
  std::string file;
};

Beginning askbeginning() {
  const std::string more =
      "Or the name of a file (.csv, .xlsx, .sav, .dta and the like): then a formula is asked for.\n";
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("\nWill you be starting with raw data? ", line, Question::yesno, more);
    if (israwdata(line)) return {true, line};
    const char first = line.empty() ? '\0' : line[0];
    if (std::strchr("nNyY", first) != nullptr && first != '\0') return {first == 'y' || first == 'Y', {}};
  }
  noproperresponse();
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
  writekeys();
  printprocessed();
  fail(0);
}

void checksmallsample() {
  if (run.out.lvr && (run.control.restricted || run.control.ddf != DegreesMethod::counts))
    stopwith("LIKELIHOOD:REML and DDF: cannot be combined with latent variable regression.\n");
  if (const std::string words = smallsampleobstacle(run.model, run.control); !words.empty())
    stopwith("%s\n", words.c_str());
}

void checkengines() {
  if (run.control.hetit != 0 && !run.model.outcome.linear()) stopwith("HETIT: is for linear models only.\n");
  if (const std::string words = engineobstacle(run.model, run.control); !words.empty()) stopwith("%s\n", words.c_str());
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

// What an output may write over although it could be read.
InputKind ownkind(const std::string& output) {
  if (output == newcommandfile) return InputKind::commandfile;
  if (output == run.files.startvals) return InputKind::startingvalues;
  for (const std::string* name : {&run.files.resfil1name, &run.files.resfil2name, &run.files.resfil3name})
    if (output == subrunname(*name) && isownspss(output)) return InputKind::rawdata;
  return InputKind::none;
}

// Whether the first line that is neither empty nor a comment has a keyword.
bool begincommands(std::string_view text) {
  while (!text.empty()) {
    const std::string line(text.substr(0, text.find('\n')));
    if (!line.empty() && line[0] != '#' && line[0] != ' ' && line[0] != '\r')
      return line.find(':') != std::string::npos && findkeyword(line) != nullptr;
    text.remove_prefix(std::min(text.size(), line.size() + 1));
  }
  return false;
}

// A table of data: by its name and its first line, which is empty in a report.
bool israwtable(const std::string& report) {
  if (reportisstdout() || isspecial(report) || typeofextension(report) == nullptr || !fileexists(report)) return false;
  char head[4096];
  std::FILE* file = openfile(report, "rb");
  const std::string_view start(head, readupto(head, sizeof head, file, report));
  std::fclose(file);
  return start.substr(0, start.find('\n')).find_first_of(",;\t") != std::string_view::npos;
}

// The files of the run, before one of them is opened for writing. A run of its own newcmd.kdr writes that file again.
void checkfiles() {
  const RunFiles& files = run.files;
  std::vector<std::string> inputs{files.mdmfile};
  if (!leadtoone(files.cmdfile, newcommandfile)) inputs.push_back(files.cmdfile);
  if (!files.nullmodel.empty()) inputs.push_back(files.nullmodel);
  if (!files.predict.empty()) inputs.push_back(files.predict);
  std::vector<std::string> outputs{newcommandfile, files.startvals, resultsname(), predictionsname(), marginsname()};
  if (!reportisstdout()) outputs.push_back(files.outfile);
  if (run.series.mimode || run.series.pvmode) {
    outputs.push_back(averagedreportname());
    outputs.emplace_back(storename);
    outputs.push_back(files.results);
  }
  if (run.out.printvc != VarianceFiles::none) outputs.insert(outputs.end(), {taufile, gammafile, robustgammafile});
  if (run.out.printvc != VarianceFiles::none && !run.model.outcome.linear())
    outputs.insert(outputs.end(), {unitspecificgammafile, populationgammafile, robustpopulationgammafile,
                                   laplacetaufile, laplacegammafile, quadraturetaufile, quadraturegammafile});
  if (run.control.hetit != 0) outputs.emplace_back(heterogeneousfile);
  if (run.out.resfil1) outputs.push_back(subrunname(files.resfil1name));
  if (run.out.resfil2) outputs.push_back(subrunname(files.resfil2name));
  if (run.out.resfil3) outputs.push_back(subrunname(files.resfil3name));
  if (run.out.graph) outputs.push_back(files.graphgammas);
  refuseclashes(inputs, outputs);
  for (const std::string& path : outputs) {
    refuseinput(path, ownkind(path));
    refuseunwritable(path);
  }
  if (israwtable(files.outfile))
    stopwith("The output file %s holds a table of data, which would be lost. Give the report another name\n",
             files.outfile.c_str());
  refuseforeignresults();
  refuseforeignpredictions();
}

// The answers of the dialogue as a command file, before the question for the report, which may be in vain.
void keepanswers() {
  checkfiles();
  writecommandfile(newcommandfile);
}

// What a file is that stands in the place of the MDM file, and what can be done with it.
std::string otherkind(const std::string& path) {
  const std::string shown = printable(path);
  const InputKind kind = inputkind(path);
  if (kind == InputKind::commandfile) return shown + " is a command file: the MDM file stands in front of it.\n";
  if (kind == InputKind::mdmtemplate) return shown + " is a template: kdr3 -r " + shown + " makes an MDM file.\n";
  if (typeofextension(path) == nullptr) return "";
  return shown + " is raw data: kdr3 -from " + shown +
         " -level3 COLUMN -level2 COLUMN makes an MDM file of it, and kdr3 -fit FORMULA " + shown +
         " fits a model to it.\n";
}

void readmodel() {
  run.id.records.reset();
  untilexists(run.files.mdmfile, "mdm");
  run.mdm.stream = openfile(run.files.mdmfile, "rb");
  if (run.files.sourcename.empty()) run.files.sourcename = run.files.mdmfile;
  if (!run.files.cmdfile.empty()) untilexists(run.files.cmdfile, "Batch");
  run.mdm.path = run.files.mdmfile;
  const Failure unread = readmdm(run.mdm);
  if (unread.consolewords == notmdmwords) std::printf("%s", otherkind(run.mdm.path).c_str());
  stopif(unread);
  for (const std::string& words : singleunits()) warn(words);
  allocatemodel();
  readcommandfile();
  modelquestions();
  constraintquestions();
  settleconstraints();
  if (run.model.coef.ngamma - run.model.nconstrained < 1) fail(17);
  featurequestions();
  labelrandomeffects();
  choosekind();
  outputquestions();
  compactlists();
  markdeletion(run.model, run.mdm);
  run.model.weighted = run.model.wgtvar1 != 0 || run.model.wgtvar2 != 0 || run.model.wgtvar3 != 0;
  checkengines();
  checksmallsample();
  checkbootstrap();
  checkeffects();
  readnullmodel();
  if (run.model.weighted) stopif(normaliseweights(run.model, run.mdm, runobserver(), run.weights));
  if (!run.series.pvmode || run.series.pvfirst)
    run.model.outname = run.mdm.names1[static_cast<std::size_t>(run.model.outvar)];
  centerlevel3(run.model, run.mdm);
}

void openresults() {
  startdocument();
  checkpredictions(analysisofrun(runobserver(), nullptr));
  buildsummary();
  openreport(checkfiles, keepanswers);
  setsymbols();
  makerowlabels();
  writeheader();
  writespecification();
  applyconstraints(run.model);
  run.model.coef.ngamma -= run.model.nconstrained;
  beginseries();
  if (!reportisstdout()) std::printf("Computing . . ., please wait\n");
  // The model that the user gave, with the first of the plausible values.
  if (!run.series.pvmode || run.series.pvfirst) writecommandfile(newcommandfile);
}

// The estimation by the kind of the run; the results of its passes go to the store of a series.
PassResults estimate(const CategoryTable& table) {
  Estimates start;
  const bool given = havestartvalues();
  if (given) start = readstartvalues();
  const Observer observer = runobserver();
  const Analysis analysis = analysisofrun(observer, given ? &start : nullptr);
  if (!run.model.outcome.linear()) return nonlinearjob(analysis, table);
  PassResults results = linearjob(analysis);
  storesubrun(results);
  return results;
}

// The method that the estimates are of, where the run has several.
std::string methodof(const PassResults& results) {
  const bool engines = run.control.laplace || run.control.agqpoints != 0;
  return engines ? methodwords(results.kind, results.quadrature.points) : "";
}
std::string methodof(const Pooled& averages) { return averages.engine ? seriesmethod(*averages.engine) : ""; }

// The regression that LVR-BETA: asks for, of a pass or of the averages, into the report and the results document.
template <class Results>
void latentvariables(const Results& results) {
  if (!run.out.lvr) return;
  const LatentModel model =
      latentmodel(modelrows(run.model), {run.out.lvrroles.data(), run.out.lvrroles.size()}, run.mdm.nunits3);
  const LatentRegression regression = latentregression(model, results);
  latentreport(regression, methodof(results));
  documentlatent(results, regression);
}

// Moves the model to the next plausible value and leaves it as the command file of the next pass; false when there is
// none.
bool nextplausiblevalue() {
  SeriesMode& series = run.series;
  if (!series.pvmode || series.pvindex + 1 >= series.nsets) return false;
  ++series.pvindex;
  series.pvfirst = false;
  // Who asks for the taus in every case asks from the next data set on only where it is needed.
  for (const Tau which : {Tau::pi, Tau::beta})
    if (FixTau& code = run.control.fixtau(which);
        code == FixTau::always && ofthe(which, series.showntau2, series.showntau3))
      code = FixTau::ask;
  const auto old = static_cast<std::size_t>(series.pvcurrent);
  series.pvcurrent = series.pvlist[static_cast<std::size_t>(series.pvindex)];
  const auto next = static_cast<std::size_t>(series.pvcurrent);
  if (run.model.outvar == static_cast<int>(old)) {
    run.model.outvar = series.pvcurrent;
  } else {
    ++series.pvpredictor;
    run.model.center1[next] = run.model.center1[old];
    run.model.center1[old] = Centering::none;
  }
  for (int e = 0; e < run.model.neqsets; ++e) {
    Use* use = run.model.use1.row(e);
    use[next] = use[old];
    use[old] = Use::none;
  }
  run.files.nextcommands = neededscratch();
  writenextcommands(run.files.nextcommands.get());
  return true;
}

// The last words on the console: where to look.
void tellfiles() {
  if (reportisstdout()) return;
  const bool averages = run.series.pvmode || run.series.milast;
  const std::string& results = averages ? run.files.results : resultsname();
  std::printf("The report is %s%s", run.report.html ? "the page " : "",
              printable(averages ? averagedreportname() : run.files.outfile).c_str());
  if (run.series.pvmode)
    std::printf(", those of the passes are numbered up to %s", printable(run.files.outfile).c_str());
  else if (averages && !run.series.closing)
    std::printf(", that of this data set is %s", printable(run.files.outfile).c_str());
  if (!results.empty()) std::printf(", the results are %s", printable(results).c_str());
  std::printf(".\n");
}

// The averages of the series in this folder, with the model of its last data set as newcmd.kdr has it.
[[noreturn]] void closingjob() {
  run.series.mimode = true;
  if (!fileexists(storename)) stopif(nostore());
  constexpr std::string_view head = "#This command file was run with ";
  std::FILE* file = openfile(newcommandfile, "rb");
  char line[maxline] = {};
  const bool any = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  const std::string_view first(line, any ? std::strcspn(line, "\r\n") : 0);
  if (!first.starts_with(head)) stopwith("The file %s here is not one that a run wrote.\n", newcommandfile);
  run.files.mdmfile = first.substr(head.size());
  run.files.cmdshown = run.files.cmdfile = newcommandfile;
  readmodel();
  if (run.model.outcome.categorical()) std::ignore = categoriesofrun(analysisofrun(runobserver(), nullptr));
  // The file has the name of the last sub-run's report, with its number.
  std::string& name = run.files.outfile;
  const std::size_t dot = extensionplace(name), stem = name.find_last_not_of("0123456789", dot - 1);
  if (dot != std::string::npos && dot > 0 && stem != std::string::npos && stem + 1 < dot && name[stem] == '_' &&
      name.compare(dot, 4, ".htm") == 0)
    name.erase(stem, dot - stem);
  namereport();
  setsymbols();
  makerowlabels();
  writespecification();  // no report is open: the subscripts of the tables
  applyconstraints(run.model);
  run.model.coef.ngamma -= run.model.nconstrained;
  resumeseries();
  if (const Pooled* averages = poolseries()) latentvariables(*averages);
  closereport();
  writeaveragedresults();
  tellfiles();
  endrun();
}

// After a refusal of what -fit had not looked at: MDM file and command file stand, perhaps beside older results.
void tellfit() {
  if (run.report.stream != nullptr) return;
  const std::string stem = run.files.mdmfile.substr(0, extensionplace(run.files.mdmfile));
  std::printf("Without results: %s.mdm and %s.kdr were made", printable(stem).c_str(), printable(stem).c_str());
  for (const char* extension : {".txt", ".json"})
    if (fileexists(stem + extension)) std::printf(", %s%s is of an earlier run", printable(stem).c_str(), extension);
  std::printf(".\n");
}

}  // namespace

void runjob(int argc, char** argv) {
  holdstandardstreams();
  std::set_new_handler([] { fail(3); });
  stophooks.closeseries = closeseries;
  iscommandtext = begincommands;
  installhandlers();
  startrun();
  Options options = readoptions(argc, argv);
  if (run.series.closing) closingjob();
  static_cast<void>(neededscratch());  // before anything is written that would be lost for want of one
  std::optional<PreparedFit> fit;
  if (options.fit) fit = preparefit(std::move(*options.fit));
  bool rawjob = options.templatejob;
  const bool alone = !fit && !rawjob && run.files.cmdfile.empty();
  if (alone && israwdata(run.files.mdmfile)) fit = fitdialogue(run.files.mdmfile);
  if (run.files.mdmfile.empty() && !rawjob) {
    const Beginning begin = askbeginning();
    if (!begin.file.empty()) fit = fitdialogue(begin.file);
    if (!fit && begin.raw) {
      mdmdialogue();
      rawjob = true;
    } else if (!fit) {
      askmdmfile();
    }
  }
  if (rawjob) constructionjob();
  if (fit) {
    stophooks.tellfit = tellfit;
    documentcoding(fit->coding);
  }
  startpredictions(fit ? &*fit : nullptr);

  if (run.series.mimode && run.series.mifirst) refuseinput(storename);
  if (run.series.mimode && !run.series.mifirst && !fileexists(storename)) stopif(nostore());
  clearseries();
  do {
    readmodel();
    const CategoryTable table =
        run.model.outcome.categorical() ? categoriesofrun(analysisofrun(runobserver(), nullptr)) : CategoryTable{};
    openresults();
    stophooks.tellfit = nullptr;
    const PassResults results = estimate(table);
    if (run.model.outcome.single()) listnonlinearfiles();
    latentvariables(results);
    if (run.model.outcome.linear()) listlinearfiles(results);
    closereport();
    writeresults();
    const Pooled* averages = poolseries();
    if (averages == nullptr) continue;
    latentvariables(*averages);
    closereport();
    writeaveragedresults();
  } while (nextplausiblevalue());
  if (fit) {
    fitsummary(*fit);
  } else {
    tellfiles();
  }
  endrun();
}

}  // namespace kdr
