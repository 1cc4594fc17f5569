#include "report/resultsdocument.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/formatted.h"
#include "data/mdm.h"
#include "document/resultsdocument.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/reportstream.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "report/modelrows.h"
#include "report/resultsphases.h"
#include "report/stream.h"

namespace kdr {

namespace {

// Nothing is allocated before the run has begun, which is when exhausted memory gets its words.
struct Collected {
  ResultsDocument document;
  Json failed;
  bool averages = false;
  std::optional<RecordsHash> hash;
};
Collected collected;
Json coding;  // of the whole run

bool wanted() { return !run.files.results.empty(); }

std::vector<std::string> leftnames(const Array<Name>& names) {
  std::vector<std::string> list;
  for (const Name& name : names) list.push_back(leftname(name));
  return list;
}

// A text ID without the blanks around it.
std::string leftid(const Id& id) {
  std::string text = id.text.text;
  text.erase(0, text.find_first_not_of(' '));
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

// The run as its document tells it.
Subject subject() {
  const MdmData& mdm = run.mdm;
  Subject made{run.model,
               leftname(run.model.outname),
               {leftnames(mdm.names1), leftnames(mdm.names2), leftnames(mdm.names3)},
               {},
               run.records(),
               mdm.nunits2,
               mdm.nunits3,
               mdm.twolevel()};
  for (const Name& label : run.model.categorylabel) made.categories.emplace_back(label.text);
  made.texts = &mdm.texts;
  made.recordsread = mdm.numl1rec;
  made.hash = collected.averages ? std::nullopt : collected.hash;
  if (run.out.deviance) made.alternative = {*run.out.deviance, run.out.df};
  return made;
}

// Of averages: the sub-runs that they rest on, by their documents, which a process of its own may have written under
// another name.
Json subruns() {
  const SeriesMode& series = run.series;
  Json list = Json::array();
  for (int i = 0; i < series.nsets; ++i) {
    if (std::find(collected.failed.begin(), collected.failed.end(), i + 1) != collected.failed.end()) continue;
    const std::string name = numberedname(run.files.results, i + 1);
    std::error_code none;
    const bool value = series.pvmode && at(i) < series.pvlist.size();
    list.push_back({{"subrun", i + 1},
                    {"plausible_value", value ? Json(leftname(run.mdm.names1[series.pvlist[i]])) : Json()},
                    {"results", std::filesystem::exists(name, none) ? Json(name) : Json()}});
  }
  return list;
}

Json seriesfacts() {
  const SeriesMode& series = run.series;
  if (!series.mimode && !series.pvmode) return {};
  const bool averages = collected.averages, value = series.pvmode && !averages && series.pvcurrent != 0;
  Json facts{{"kind", series.pvmode ? "plausible values" : "multiple imputation"},
             {"subrun", averages ? Json() : Json(subrunnumber())},
             {"plausible_value", value ? Json(leftname(run.mdm.names1[series.pvcurrent])) : Json()}};
  facts["failed_subruns"] = collected.failed;
  if (averages) facts["subruns"] = subruns();
  return facts;
}

// Of averages: whether all sub-runs have.
Json converged() { return !(collected.averages ? run.id.unconverged : run.id.passunconverged); }

Json filesmade() {
  Json files = Json::array();
  if (!reportisstdout()) files.push_back(collected.averages ? averagedreportname() : run.files.outfile);
  if (!collected.averages)
    for (const std::string& name : run.files.made) files.push_back(name);
  return files;
}

// What tells the files that pictures are drawn from.
Json checksums() {
  Json list = Json::array();
  if (!collected.averages)
    for (const FileMark& mark : run.files.marks)
      list.push_back({{"file", mark.name},
                      {"bytes", mark.bytes},
                      {"crc32", mark.crc},
                      {"phase", mark.phase.empty() ? Json() : Json(mark.phase)}});
  return list;
}

bool istable(const std::string& path) { return strcasecmp(path.substr(extensionplace(path)).c_str(), ".csv") == 0; }

void writedocument(const std::string& path) {
  const DocumentFrame frame{run.files.title, run.files.mdmfile, run.files.cmdshown, seriesfacts(),
                            converged(),     filesmade(),       checksums(),        coding};
  const std::string text = documenttext(wholedocument(collected.document, subject(), frame), istable(path));
  ResultFile file;
  openresult(file, path);
  writeresult(file, text);
  finishresult(file);
}

}  // namespace

void startdocument() {
  collected = {{}, Json::array(), false, {}};
  for (const bool ofcommands : {true, false})
    for (const RunWarning& warning : run.warnings)
      if (warning.ofcommands == ofcommands)
        collected.document.warnings.push_back((ofcommands ? "Command file: " : "") + warning.words);
  run.id.passunconverged = false;
  run.files.made.clear();
  run.files.marks.clear();
}

void documentpass(const PassResults& results) {
  if (wanted() && (run.out.fulloutput || results.kind != PassKind::identity))
    addphase(collected.document, subject(), results);
}

void documentheterogeneous(const PassResults& results, const Array<double>& mean, const Array<double>& weighted) {
  if (wanted()) addphase(collected.document, subject(), results, mean, weighted);
}

void documentleastsquares(const LeastSquaresResults& results) {
  if (wanted()) addphase(collected.document, subject(), results);
}

void documentaverages(const Pooled& pooled, std::span<const int> failed) {
  collected.averages = true;
  if (!wanted()) return;
  for (const int index : failed) collected.failed.push_back(index + 1);
  addphases(collected.document, subject(), pooled);
}

void documentmacroend(const MacroEvent& event) {
  if (wanted()) addmacroend(collected.document, event);
}

void documentengine(const EngineStage& stage) {
  if (wanted()) addengine(collected.document, subject(), stage, run.control.agqfixed);
}

void documentlatent(const PassResults& results, const LatentRegression& regression) {
  if (wanted()) addlatent(collected.document, subject(), results, regression);
}

void documentlatent(const Pooled& averages, const LatentRegression& regression) {
  if (wanted()) addlatent(collected.document, subject(), averages, regression);
}

void documentbootstrap(const char* phase, const BootstrapResults& results) {
  if (wanted()) addbootstrap(collected.document, subject(), phase, results);
}

void documentrecords(const RecordsHash& hash) { collected.hash = hash; }

void documentcoding(Json made) { coding = std::move(made); }

std::string unitid(int level, const Id& id) {
  const MdmData& mdm = run.mdm;
  const std::string* whole = mdm.texts.wholeid(level, id, mdm.numericids);
  if (whole != nullptr) return *whole;
  return mdm.numericids ? formatted("%.15g", id.number) : leftid(id);
}

UnitNames unitnames(Pass& pass) {
  UnitNames names;
  for (int k = 0; k < run.mdm.nunits3; ++k) names.level3.push_back(unitid(3, level3id(run.mdm, k)));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int k, std::size_t, const double* cold) {
        names.level2.push_back(unitid(2, getid(pass.store, cold)));
        names.parent.push_back(at(k));
        names.empty.push_back(cold[0] == 0.0 ? 1 : 0);
      },
      [](int) {}, reading(pass.store.cold));
  return names;
}

void documenteffects(const char* phase, Pass& pass) {
  if (!wanted() || !run.out.effects) return;
  const Posteriors made = posteriors(pass);
  const UnitNames names = unitnames(pass);
  stopif(storefailure(pass.store));
  addrandomeffects(collected.document, subject(), phase, made, names);
}

void documenteffects(const ResidualSource& of) {
  if (!wanted() || !run.out.effects || of.engine == nullptr) return;
  UnitNames names;
  UnitReader reader;
  startunits(reader, run.mdm, of.working.file(), 0, of.layout.width, run.mdm.nvar2, false);
  UnitBlock block;
  for (int k = 0; k < run.mdm.nunits3; ++k) {
    names.level3.push_back(unitid(3, level3id(run.mdm, k)));
    for (int j = 0; j < of.pass.n2of[k]; ++j) {
      if (!neededunit(reader, block)) tell(reader.failure);
      names.level2.push_back(unitid(2, block.id2));
      names.parent.push_back(at(k));
      names.empty.push_back(block.nj == 0 ? 1 : 0);
    }
  }
  addrandomeffects(collected.document, subject(), of.phase.c_str(), of.engine->random, names);
}

void documentwarning(const std::string& words) {
  if (wanted()) collected.document.warnings.push_back(words);
}

const std::vector<Json>& documentphases() { return collected.document.phases; }

std::string resultsname() { return subrunname(run.files.results); }

void checkeffects() {
  if (!run.out.effects) return;
  if (!wanted() || istable(run.files.results))
    stopwith("-effects goes with a results document, as of -results NAME.json.\n");
}

void refuseforeignresults() {
  for (const std::string& name : {resultsname(), run.files.results}) {
    std::error_code none;
    if (name.empty() || isspecial(name) || !std::filesystem::exists(name, none)) continue;
    char head[sizeof documenthead] = {};
    std::FILE* old = openfile(name, "rb");
    const std::string_view start(head, readupto(head, sizeof head - 1, old, name));
    std::fclose(old);
    if (!start.empty() && start != documenthead && !start.starts_with(tablehead))
      stopwith("The file %s holds no results of this program. It would be lost: give the results another name\n",
               name.c_str());
  }
}

void writeresults() {
  if (wanted()) writedocument(resultsname());
}

void writeaveragedresults() {
  if (wanted() && collected.averages && !collected.document.phases.empty()) writedocument(run.files.results);
}

}  // namespace kdr
