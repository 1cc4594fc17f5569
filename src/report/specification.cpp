#include "report/specification.h"

#include <strings.h>

#include <set>
#include <string>
#include <utility>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/equations.h"
#include "report/modelrows.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

constexpr int maxlevel1summary = 500;
constexpr int maxlevel2summary = 500;
constexpr int maxgammasummary = 1500;

// The block of facts.

const char* distribution() { return nameof(run.model.outcome.family); }

void runheading() {
  reportbreak();
  report2(" Specifications for this ", "<h2>Specifications for this ");
  if (run.model.outcome.single() && !run.model.restrictions.fixsigma2) report("Overdispersed ");
  if (!run.model.outcome.linear()) report("%s ", distribution());
  report("%s run", module);
  report2("\n\n\n", "</h2>");
}

bool onepoint() { return run.control.agqpoints == 1 && !run.control.agqauto; }

void estimationmethod() {
  const bool likelihood = run.control.laplace || run.control.agqpoints != 0;
  report("  Method of estimation: %s", run.control.restricted ? "restricted" : "full");
  if (run.model.outcome.linear()) {
    report(" maximum likelihood");
  } else if (!likelihood) {
    report(" PQL");
  } else {
    report(" maximum likelihood");
    if (run.control.laplace) report(" via EM-Laplace 2");
    if (onepoint()) report(" via first-order Laplace");
    if (run.control.agqpoints != 0 && !onepoint()) report(" via adaptive Gaussian quadrature");
  }
  reportbreak();
}

void seriesfacts() {
  if (run.series.pvmode) {
    reportbreak();
    reportline("  This is part of a plausible value analysis using the following variables:");
    for (const int v : run.series.pvlist) report("    %s\n", eightcolumns(run.mdm.names1[v]).c_str());
    reportbreak();
  }
  if (run.series.mimode) {
    reportbreak();
    reportline("  This is part of a multiple imputation analysis");
  }
}

void nonlinearfacts() {
  if (run.model.outcome.linear()) return;
  report("  Maximum number of macro iterations = %d\n", run.control.macroit);
  reportbreak();
  if (run.control.agqauto) {
    reportline("  Number of adaptive Gaussian quadrature points: as many as the data need");
  } else if (run.control.agqpoints != 0) {
    reportline("  Number of adaptive Gaussian quadrature points = %d", run.control.agqpoints);
  }
  if (run.control.popavit > 1)
    reportline("  Maximum number of population average iterations = %d", run.control.popavit);
  reportbreak();
  reportline("  Distribution at Level-1: %s", distribution());
  if (run.control.taylor != Taylor::none)
    reportline("Taylor series at order %d selected", static_cast<int>(run.control.taylor));
}

void facts() {
  const RunFiles& files = run.files;
  runheading();
  reportline("  Problem Title: %s", escaped(files.title).c_str());
  reportbreak();
  reportline("  The data source for this run  = %s", escaped(files.sourcename).c_str());
  reportline("  The command file for this run = %s", escaped(files.cmdshown).c_str());
  reportline("  Output file name              = %s", escaped(files.outfile).c_str());
  reportline("  The maximum number of level-1 units = %d", run.mdm.nunits1);
  reportline("  The maximum number of level-2 units = %d", run.mdm.nunits2);
  if (!run.mdm.twolevel()) reportline("  The maximum number of level-3 units = %d", run.mdm.nunits3);
  report("  The maximum number of %siterations = %d\n", run.model.outcome.linear() ? "" : "micro ", run.control.numit);
  reportbreak();
  if (run.model.outcome.categorical()) reportline("  Number of categories = %d", run.model.outcome.categories);
  estimationmethod();
  seriesfacts();
  nonlinearfacts();
}

// The weighting table.

void weightrow(const char* textlabel, const char* htmllabel, const Name* name, bool normalised, const char* style) {
  const std::string shown = name == nullptr ? std::string() : eightcolumns(*name);
  if (run.report.html) {
    report("<tr><td align=left %s>%s</td><td align=center %s>%s</td>", style, htmllabel, style, name ? "yes" : "no");
    report("<td align=center %s>%s</td>", style, name ? shown.c_str() : "&nbsp");
    report("<td align=center %s>%s</td></tr>\n", style, name == nullptr ? "&nbsp" : normalised ? "yes" : "no");
    return;
  }
  report("%s", textlabel);
  if (name == nullptr) {
    report(" no       \n");
  } else if (normalised) {
    report("yes       %s        yes\n", shown.c_str());
  } else {
    report("yes       %s         no\n", shown.c_str());
  }
}

void weightingtable() {
  const MdmData& mdm = run.mdm;
  if (run.model.wgtvar1 == 0 && run.model.wgtvar2 == 0 && run.model.wgtvar3 == 0 && run.model.autovknown == 0) return;
  report2("\n Weighting Specification\n", "<h4> Weighting Specification</h4>\n");
  reportrule(23);
  reporttext("                         Weight\n");
  reporttext("                         Variable\n");
  reporttext("            Weighting?   Name        Normalized?\n");
  if (run.report.html) {
    opentable();
    for (const char* head : {"&nbsp;", "Weighting?", "Weight<br>Variable", "Normalized?"})
      report("<td align=center %s>%s</td>\n", stylerule, head);
    report("</tr>\n<tbody>\n");
  }
  const auto named = [](const Array<Name>& names, int v) { return v == 0 ? nullptr : &names[v]; };
  weightrow(" Level 1       ", "Level 1", named(mdm.names1, run.model.wgtvar1), true, styleplain);
  weightrow(" Level 2       ", "Level 2", named(mdm.names2, run.model.wgtvar2), true, styleplain);
  if (!mdm.twolevel()) weightrow(" Level 3       ", "Level 3", named(mdm.names3, run.model.wgtvar3), true, styleplain);
  weightrow(" Precision     ", "Precision", named(mdm.names1, run.model.autovknown), false, stylebottom);
  reporthtml("</tbody></table>\n");
}

// The model table, in text mode only.

// The marks that the rows have shown, for the notes under the table.
struct MarksShown {
  bool fixed = false, group = false, grand = false;
};

char fixedmark(bool fixed, MarksShown& shown) {
  shown.fixed = shown.fixed || fixed;
  return fixed ? '#' : ' ';
}

char centeringmark(Centering mark, MarksShown& shown) {
  shown.group = shown.group || mark == Centering::groupmean;
  shown.grand = shown.grand || mark == Centering::grandmean;
  return mark == Centering::groupmean ? '*' : mark == Centering::grandmean ? '%' : ' ';
}

void modelheading(bool constrained) {
  report("\n  The model specified for the fixed effects was:\n");
  reportrule(52);
  const bool two = run.mdm.twolevel();
  report("\n   Level-1                Level-2%s%s", two ? "      " : "           Level-3",
         constrained ? "          Specified" : "");
  report("\n   Coefficients           Predictors%s%s", two ? "   " : "        Predictors",
         constrained ? "       Constraints" : "");
  report("\n ---------------------  ---------------%s%s\n", two ? " " : "   ----------------",
         constrained ? "   -----------" : "");
}

void effectcolumns(const ModelRows& rows, const EffectRow& effect, bool constrained, MarksShown& shown) {
  report("   %c%s", centeringmark(run.model.center3[effect.variable], shown), effectlabel(rows, effect).c_str());
  if (constrained) report("        %1.1d", effect.group);
  reportbreak();
}

void termrows(const ModelRows& rows, const TermRow& term, bool constrained, MarksShown& shown) {
  if (run.mdm.twolevel()) {
    report(" %c%s", centeringmark(run.model.center2[term.variable], shown), termlabel(rows, term).c_str());
    if (constrained) report("        %1.1d", rows.effects[static_cast<std::size_t>(term.firsteffect)].group);
    return reportbreak();
  }
  report("%c%c%s", fixedmark(!term.random, shown), centeringmark(run.model.center2[term.variable], shown),
         termlabel(rows, term).c_str());
  for (int u = 0; u < term.neffects; ++u) {
    if (u > 0) report("%39s", "");
    effectcolumns(rows, rows.effects[static_cast<std::size_t>(term.firsteffect + u)], constrained, shown);
  }
  if (term.neffects == 0) reportbreak();
}

void coefficientlead(const CoefficientRow& coefficient, MarksShown& shown) {
  report("%c%c%s ", fixedmark(!coefficient.random && !coefficient.threshold, shown),
         centeringmark(coefficient.threshold ? Centering::none : run.model.center1[coefficient.variable], shown),
         coefficientlabel(coefficient).c_str());
  if (!coefficient.threshold) report("   ");
}

void modeltable(const ModelRows& rows) {
  const bool constrained = run.model.nconstrained != 0;
  MarksShown shown;
  modelheading(constrained);
  for (const CoefficientRow& coefficient : rows.coefficients) {
    coefficientlead(coefficient, shown);
    const TermRow* const terms = rows.terms.data() + coefficient.firstterm;
    if (coefficient.threshold) {
      report("%14s", "");
      effectcolumns(rows, rows.effects[static_cast<std::size_t>(terms->firsteffect)], constrained, shown);
      continue;
    }
    for (int t = 0; t < coefficient.nterms; ++t) {
      if (t > 0) report("%24s", "");
      termrows(rows, terms[t], constrained, shown);
    }
    if (coefficient.nterms == 0) reportbreak();
  }
  report("\n");
  if (shown.fixed) report(" '#' - The residual parameter variance for the parameter has been set to zero\n");
  if (shown.group) report(" '*' - This variable has been centered around its group mean\n");
  if (shown.grand) report(" '%%' - This variable has been centered around its grand mean\n");
}

// The whole names of the variables of the model, where their 8 letters tell less.
void wholenames() {
  std::set<std::pair<int, int>> variables{{1, run.model.outvar}};
  const ModelRows rows = modelrows(run.model);
  for (const CoefficientRow& coefficient : rows.coefficients)
    if (!coefficient.threshold) variables.insert({1, coefficient.variable});
  for (const TermRow& term : rows.terms) variables.insert({2, term.variable});
  for (const EffectRow& effect : rows.effects) variables.insert({3, effect.variable});
  bool begun = false;
  const Array<Name>* names[] = {&run.mdm.names1, &run.mdm.names2, &run.mdm.names3};
  for (const auto& [level, v] : variables) {
    const VariableText* text = run.mdm.texts.of(level, v);
    const std::string eight = text == nullptr ? "" : leftname((*names[level - 1])[static_cast<std::size_t>(v)]);
    if (text == nullptr || (text->label.empty() && strcasecmp(eight.c_str(), text->name.c_str()) == 0)) continue;
    if (!begun) reportbreak();
    if (!begun) reportline("  Names of the variables:");
    begun = true;
    const std::string label = text->label.empty() ? "" : " (" + text->label + ")";
    reportline("    %-8s  %s", escaped(eight).c_str(), escaped(text->name + label).c_str());
  }
}

}  // namespace

void buildsummary() {
  int level1 = 0, level2 = 0, fixed = 0;
  const ModelRows rows = modelrows(run.model);
  for (const CoefficientRow& coefficient : rows.coefficients) level1 += coefficient.set == 0 ? 1 : 0;
  for (const TermRow& term : rows.terms) {
    if (rows.owner(term).set != 0) continue;
    ++level2;
    fixed += term.neffects > 0 ? term.neffects : 1;
  }
  if (level1 > maxlevel1summary || level2 > maxlevel2summary || fixed > maxgammasummary)
    stopwith("Model is too big for the program!\n");
}

void writespecification() {
  facts();
  weightingtable();
  report("\n  The outcome variable is %s\n", escaped(run.model.outname.text).c_str());
  wholenames();
  if (!run.report.html) modeltable(modelrows(run.model));
  writeequations();
  writemixedmodel();
}

}  // namespace kdr
