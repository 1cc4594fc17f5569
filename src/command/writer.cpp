#include "command/writer.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "command/text.h"
#include "core/formatted.h"
#include "core/modelwalk.h"
#include "driver/failures.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

std::string joined(const std::vector<std::string>& pieces, const char* separator) {
  std::string text;
  for (std::size_t i = 0; i < pieces.size(); ++i) text += (i > 0 ? separator : "") + pieces[i];
  return text;
}

// A real with so many decimals, or with as many more digits as it needs to be read back as it is.
std::string real(double value, int decimals) {
  std::vector<char> text(400);
  std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  for (int digits = 6; std::strtod(text.data(), nullptr) != value && digits <= 17; ++digits)
    std::snprintf(text.data(), text.size(), "%.*g", digits, value);
  return text.data();
}

std::string nameof(const Array<Name>& names, int v) { return leftname(names[at(v)]); }

std::string nameornone(const Array<Name>& names, int v) { return v == 0 ? "NONE" : nameof(names, v); }

std::string namelist(const Array<Name>& names, const int* list, int n) {
  std::vector<std::string> pieces;
  for (int i = 0; i < n; ++i) pieces.push_back(nameof(names, list[i]));
  return joined(pieces, ",");
}

bool linearrun() { return run.model.outcome.linear(); }

std::string continuesuffix() {
  const std::string letter = wordof(limitletters, run.control.numitcontinue);
  return letter.empty() ? letter : "," + letter;
}

void writelineariterations(std::FILE* out) {
  // The reader refuses a count of 0; without the line the run asks again.
  if (run.control.numit > 0) std::fprintf(out, "NUMIT:%d%s\n", run.control.numit, continuesuffix().c_str());
  std::fprintf(out, "STOPVAL:%s\n", real(run.control.stopval, 10).c_str());
  std::fprintf(out, "NONLIN:n\n");
}

void writenonlineariterations(std::FILE* out) {
  const Control& iter = run.control;
  const Model& kind = run.model;
  std::fprintf(out, "STOPMICRO:%s\n", real(iter.stopval, 10).c_str());
  std::fprintf(out, "STOPMACRO:%s\n", real(iter.stopmacro, 10).c_str());
  std::fprintf(out, "MACROIT:%d%s\n", iter.macroit, continuesuffix().c_str());
  if (iter.numit > 0) std::fprintf(out, "MICROIT:%d\n", iter.numit);
  const std::string type = uppercase(nameof(kind.outcome.family));
  if (kind.outcome.categorical()) {
    std::fprintf(out, "NONLIN:%s,%d\n", type.c_str(), kind.outcome.categories);
  } else {
    std::fprintf(out, "NONLIN:%s", type.c_str());
    if (kind.outcome.counted && kind.outcome.countvariable)
      std::fprintf(out, ",%s", nameof(run.mdm.names1, *kind.outcome.countvariable).c_str());
    std::fprintf(out, "\n");
  }
  if (kind.outcome.family == Family::bernoulli)
    std::fprintf(out, "LAPLACE:%s,%d\n", iter.laplace ? "y" : "n", iter.laplaceit);
  if (iter.agqpoints != 0)
    std::fprintf(out, "agq:y,%d,%s\n", iter.agqit, iter.agqauto ? "AUTO" : std::to_string(iter.agqpoints).c_str());
  if (iter.taylor != Taylor::none) std::fprintf(out, "TAYLOR:%d\n", static_cast<int>(iter.taylor));
}

// ",1" or ",2".
std::string centermark(const Array<Centering>& marks, int v) {
  const Centering mark = marks[at(v)];
  return mark == Centering::none ? "" : formatted(",%d", static_cast<int>(mark));
}

// What stands behind the "=" of a LEVEL2: or LEVEL3: line.
std::string rightside(const int* row, int width, const Array<Name>& names, const Array<Centering>& marks, bool random,
                      const int* extras) {
  std::vector<std::string> terms;
  for (int s = 0; s < width && row[s] != noslot; ++s)
    terms.push_back(nameof(names, row[s]) + centermark(marks, row[s]));
  const bool any = !terms.empty() || extras[0] != noslot;
  if (random) terms.emplace_back("RANDOM");
  if (!any) return joined(terms, "+");
  return joined(terms, "+") + "/" + namelist(names, extras, filledslots(extras, maxextra));
}

std::string level1terms(int e) {
  std::string terms;
  for (int v = 0; v < run.mdm.ncol1; ++v)
    if (run.model.use1.row(e)[v] == Use::predictor)
      terms += nameof(run.mdm.names1, v) + centermark(run.model.center1, v) + "+";
  return terms + "RANDOM";
}

void writelevel1(std::FILE* out, int e, const std::string& outcome) {
  std::fprintf(out, "LEVEL1:%s=%s\n", outcome.c_str(), level1terms(e).c_str());
}

void writeset(std::FILE* out, int e, const std::string& outcome) {
  const Model& model = run.model;
  const MdmData& mdm = run.mdm;
  writelevel1(out, e, outcome);
  const ModelRows rows = modelrows(run.model);
  for (const CoefficientRow& coefficient : rows.coefficients) {
    if (coefficient.set != e) continue;
    std::fprintf(out, "LEVEL2:%s=%s\n", nameof(mdm.names1, coefficient.variable).c_str(),
                 rightside(model.terms2.row(e, coefficient.place), mdm.ncol2, mdm.names2, model.center2,
                           coefficient.random, model.extra2.row(e, coefficient.place))
                     .c_str());
    if (coefficient.threshold || mdm.twolevel()) continue;
    for (int s = 0; s < coefficient.nterms; ++s) {
      const TermRow& term = rows.terms[static_cast<std::size_t>(coefficient.firstterm + s)];
      std::fprintf(out, "LEVEL3:%s=%s\n", nameof(mdm.names2, term.variable).c_str(),
                   rightside(model.terms3.row(e, term.place), mdm.ncol3, mdm.names3, model.center3, term.random,
                             model.extra3.row(e, term.place))
                       .c_str());
    }
  }
}

void writeequations(std::FILE* out, bool nextpass) {
  const std::string outcome = nextpass ? nameof(run.mdm.names1, run.model.outvar) : leftname(run.model.outname);
  const int sets =
      run.model.outcome.categorical() && !run.model.outcome.ordinal() ? run.model.outcome.categories - 1 : 1;
  for (int e = 0; e < sets; ++e) writeset(out, e, outcome);
}

void writeweights(std::FILE* out) {
  const MdmData& mdm = run.mdm;
  std::fprintf(out, "LEVEL1WEIGHT:%s\n", nameornone(mdm.names1, run.model.wgtvar1).c_str());
  std::fprintf(out, "LEVEL2WEIGHT:%s\n", nameornone(mdm.names2, run.model.wgtvar2).c_str());
  if (!mdm.twolevel()) std::fprintf(out, "LEVEL3WEIGHT:%s\n", nameornone(mdm.names3, run.model.wgtvar3).c_str());
  if (run.model.rawweights) std::fprintf(out, "WEIGHTSCALE:NONE\n");
  std::fprintf(out, "VARIANCEKNOWN:%s\n", nameornone(mdm.names1, run.model.autovknown).c_str());
}

void writedeletion(std::FILE* out) {
  const Array<Deletion>& marks = run.model.delete1;
  if (run.mdm.deletednow && !(run.series.pvmode && !marks.empty())) return;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < marks.size(); ++i)
    if (marks[i] == Deletion::named) names.push_back(leftname(run.mdm.names1[i + 1]));
  std::fprintf(out, "LEVEL1DELETION:%s\n", names.empty() ? "NONE" : joined(names, ",").c_str());
}

// One residual file: the lists of the levels from its own upward.
void writeresfil(std::FILE* out, int level, bool wanted, const std::string& lists, const std::string& name) {
  if (!wanted) {
    std::fprintf(out, "RESFIL%d:N\n", level);
    return;
  }
  std::fprintf(out, "RESFIL%d:Y/%s\n", level, lists.c_str());
  if (!name.empty()) std::fprintf(out, "RESFIL%dNAME:%s\n", level, name.c_str());
}

void writeresiduals(std::FILE* out) {
  const MdmData& mdm = run.mdm;
  const OutputControl& wanted = run.out;
  const RunFiles& files = run.files;
  if (wanted.resfil1 || wanted.resfil2 || wanted.resfil3)
    std::fprintf(out, "RESFILTYPE:%s\n", wordof(residualforms, wanted.resfiltype));
  if (wanted.resfilof != ResidualsOf::engine)
    std::fprintf(out, "RESFILOF:%s\n", wordof(residualsofwords, wanted.resfilof));
  if (wanted.resfilrecnum) std::fprintf(out, "RESFILRECNUM:Y\n");
  writeresfil(out, 1, wanted.resfil1,
              namelist(mdm.names1, run.out.res1vars1.data(), run.out.nres1vars1) + "/" +
                  namelist(mdm.names2, run.out.res1vars2.data(), run.out.nres1vars2) + "/" +
                  namelist(mdm.names3, run.out.res1vars3.data(), run.out.nres1vars3),
              files.resfil1name);
  writeresfil(out, 2, wanted.resfil2,
              namelist(mdm.names2, run.out.res2vars2.data(), run.out.nres2vars2) + "/" +
                  namelist(mdm.names3, run.out.res2vars3.data(), run.out.nres2vars3),
              files.resfil2name);
  if (!mdm.twolevel())
    writeresfil(out, 3, wanted.resfil3, namelist(mdm.names3, run.out.res3vars3.data(), run.out.nres3vars3),
                files.resfil3name);
}

void writehypotheses(std::FILE* out) {
  const Model& model = run.model;
  if (!model.nhypotheses) return;
  // The rows as they stood before the constraints; the same as `contrasts` while no constraint was applied.
  const Array<double>& rows = model.uncutcontrasts.empty() ? model.contrasts : model.uncutcontrasts;
  std::size_t total = 0;
  for (const short n : model.hypothesisrows) total += static_cast<std::size_t>(n);
  if (total == 0) return;
  const std::size_t width = rows.size() / total;
  std::size_t next = 0;
  for (std::size_t h = 0; h < maxhypotheses && model.hypothesisrows[h] > 0; ++h)
    for (short row = 0; row < model.hypothesisrows[h]; ++row) {
      std::fprintf(out, "GAMMA%d:", static_cast<int>(h) + 1);
      for (std::size_t i = 0; i < width; ++i, ++next)
        std::fprintf(out, "%s%s", i > 0 ? "," : "", real(rows[next], 4).c_str());
      std::fprintf(out, "\n");
    }
}

// One line per group of equal elements: the element numbers, the group's first member in front.
void writecontau(std::FILE* out, const char* keyword, bool have, const Array<int>& codes) {
  if (!have) return;
  for (std::size_t i = 0; i < codes.size(); ++i) {
    if (codes[i] <= 0) continue;
    std::fprintf(out, "%s:%d", keyword, codes[i]);
    for (std::size_t j = 0; j < codes.size(); ++j)
      if (codes[j] == -codes[i]) std::fprintf(out, ",%d", static_cast<int>(j) + 1);
    std::fprintf(out, "\n");
  }
}

void writeesttau(std::FILE* out, const char* keyword, bool have, const Array<double>& matrix) {
  if (!have) return;
  std::size_t order = 0;
  while (order * order < matrix.size()) ++order;
  std::vector<std::string> elements;
  for (std::size_t i = 0; i < order; ++i)
    for (std::size_t j = 0; j <= i; ++j) {
      const double element = matrix[i * order + j];
      elements.push_back(isabsent(element) ? "E" : real(element, 6));
    }
  std::fprintf(out, "%s:%s\n", keyword, joined(elements, ",").c_str());
}

void writetaus(std::FILE* out) {
  const Restrictions& held = run.model.restrictions;
  writecontau(out, "CONTAU2", held.havecontau2, held.contau2);
  writecontau(out, "CONTAU3", held.havecontau3, held.contau3);
  writeesttau(out, "ESTTAU2", held.haveesttau2, held.esttau2);
  writeesttau(out, "ESTTAU3", held.haveesttau3, held.esttau3);
}

void writeshares(std::FILE* out, const Shares& shares) {
  if (!shares.asked) return;
  std::fprintf(out, "SHARES:%s", shares.at.empty() ? "Y" : "");
  for (std::size_t i = 0; i < shares.at.size(); ++i) {
    const auto& [level, variable, value] = shares.at[i];
    const Name& name = level == 1 ? run.mdm.names1[variable] : run.mdm.names2[variable];
    std::fprintf(out, "%s%s=%.17g", i > 0 ? "," : "", leftname(name).c_str(), value);
  }
  std::fprintf(out, "\n");
}

void writecontrol(std::FILE* out) {
  const Control& iter = run.control;
  std::fprintf(out, "FISHERTYPE:%d\n", static_cast<int>(iter.fishertype));
  if (iter.restricted) std::fprintf(out, "LIKELIHOOD:REML\n");
  if (iter.ddf != DegreesMethod::counts)
    std::fprintf(out, "DDF:%s%s\n", wordof(degreeswords, iter.ddf), iter.ddfobserved ? ",OBSERVED" : "");
  if (iter.clusterrobust) std::fprintf(out, "ROBUST:CR2\n");
  if (iter.edgefull) std::fprintf(out, "EDGECOV:FULL\n");
  if (iter.profile) std::fprintf(out, "PROFILE:Y\n");
  writeshares(out, iter.shares);
  if (!run.files.nullmodel.empty()) std::fprintf(out, "NULLMODEL:%s\n", run.files.nullmodel.c_str());
  if (run.out.printvc != VarianceFiles::none)
    std::fprintf(out, "PRINTVARIANCE-COVARIANCE:%s\n", wordof(varianceletters, run.out.printvc));
  std::fprintf(out, "HYPOTH:n\n");
  if (run.model.restrictions.fixsigma2)
    std::fprintf(out, "FIXSIGMA2:%s\n", real(*run.model.restrictions.fixsigma2, 6).c_str());
  if (run.out.deviance) std::fprintf(out, "DEVIANCE:%s\nDF:%d\n", real(*run.out.deviance, 6).c_str(), run.out.df);
  std::fprintf(out, "FIXTAU2:%d\n", static_cast<int>(iter.fixtau2));
  if (!run.mdm.twolevel()) std::fprintf(out, "FIXTAU3:%d\n", static_cast<int>(iter.fixtau3));
  if (run.model.restrictions.diagtaupi) std::fprintf(out, "DIAGONALIZETAUPI:Y\n");
  if (run.model.restrictions.diagtaubeta) std::fprintf(out, "DIAGONALIZETAUBETA:Y\n");
  if (iter.debug != 0) std::fprintf(out, "DEBUG:%d\n", iter.debug);
}

void writeconstraints(std::FILE* out) {
  std::vector<std::string> groups;
  for (const int group : run.model.constraints) groups.push_back(std::to_string(group));
  std::fprintf(out, "CONSTRAIN:%s\n", run.model.nconstrained == 0 ? "N" : joined(groups, ",").c_str());
}

void writelvr(std::FILE* out) {
  std::vector<std::string> letters;
  for (const LatentRole role : run.out.lvrroles) letters.emplace_back(wordof(roleletters, role));
  std::fprintf(out, "LVR-BETA:%s\n", run.out.lvr ? joined(letters, ",").c_str() : "N");
}

void writeoutput(std::FILE* out) {
  const RunFiles& files = run.files;
  if (run.out.graph) std::fprintf(out, "GRAPHGAMMAS:%s\n", files.graphgammas.c_str());
  if (!files.results.empty()) std::fprintf(out, "RESULTS:%s\n", files.results.c_str());
  if (!files.outfile.empty()) std::fprintf(out, "OUTPUT:%s\n", files.outfile.c_str());
  std::fprintf(out, "FULLOUTPUT:%s\n", run.out.fulloutput ? "Y" : "N");
  std::fprintf(out, "TITLE:%s\n", files.title.c_str());
  std::fprintf(out, "ACCEL:%d\n", run.control.accel);
  if (!run.mdm.twolevel()) writelvr(out);
  if (!files.startvals.empty()) std::fprintf(out, "STARTVALS:%s\n", files.startvals.c_str());
}

void writecommands(std::FILE* out, bool nextpass) {
  std::fprintf(out, "#This command file was run with %s\n", run.files.sourcename.c_str());
  if (linearrun()) {
    writelineariterations(out);
  } else {
    writenonlineariterations(out);
  }
  if (run.control.agqfixed) std::fprintf(out, "AGQNODES:FIXED\n");
  if (run.control.agqderivlevel != 2) std::fprintf(out, "AGQDERIVLEVEL:%d\n", run.control.agqderivlevel);
  if (run.control.popavit > 1) std::fprintf(out, "POPAVIT:%d\n", run.control.popavit);
  if (run.control.hetit != 0)
    std::fprintf(out, nextpass ? "HETIT:%d\n" : "#HETIT:%d was left out: this file has no such stage\n",
                 run.control.hetit);
  writeequations(out, nextpass);
  writeweights(out);
  writedeletion(out);
  writeresiduals(out);
  writehypotheses(out);
  if (run.series.pvmode)
    std::fprintf(
        out, "PLAUSVALS:%s\n",
        namelist(run.mdm.names1, run.series.pvlist.data(), static_cast<int>(run.series.pvlist.size())).c_str());
  writetaus(out);
  writecontrol(out);
  writeconstraints(out);
  writeoutput(out);
}

}  // namespace

void writecommandfile(const std::string& path) {
  ResultFile file;
  opentext(file, path);
  writecommands(file.stream, false);
  finishresult(file);
}

void writenextcommands(std::FILE* out) {
  writecommands(out, true);
  if (std::fflush(out) != 0 || std::ferror(out) != 0) fail(5);
  std::rewind(out);
}

}  // namespace kdr
