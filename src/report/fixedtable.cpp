#include "report/fixedtable.h"

#include <string>
#include <vector>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/modelrows.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

bool isleastsquares(TableKind kind) { return kind == TableKind::leastsquares || kind == TableKind::leastsquaresrobust; }
bool isestimates(TableKind kind) {
  return kind == TableKind::estimates || kind == TableKind::averagedpv || kind == TableKind::averagedmi;
}

// For each row that begins an equation set of a multinomial run the number of the set, else -1.
std::vector<int> setopenings() {
  std::vector<int> openings;
  if (multinomialrun()) {
    const ModelRows rows = modelrows(run.model);
    int last = -1;
    for (const EffectRow& effect : rows.effects) {
      if (effect.removed) continue;
      const int set = rows.owner(effect).set;
      openings.push_back(set == last ? -1 : set);
      last = set;
    }
  }
  openings.resize(static_cast<std::size_t>(run.model.coef.ngamma), -1);
  return openings;
}

// True when several gammas of the full model are made from this one.
bool isshared(int g) {
  const Model& model = run.model;
  const std::size_t full = model.constraints.size();
  if (model.nconstrained == 0 || static_cast<std::size_t>(g) >= full || model.constrainmatrix.size() < full * full)
    return false;
  int members = 0;
  for (std::size_t i = 0; i < full; ++i)
    if (model.constrainmatrix[i * full + static_cast<std::size_t>(g)] != 0.0) ++members;
  return members >= 2;
}

// What stands above and before the numbers of a row: its groups, its label, its mark.
void rowlead(int g, int setopened, const char* style) {  // the groups are never the last row of the table
  if (setopened >= 0) {
    if (g > 0) reportbreak();
    const std::string category = categoryof(setopened);
    if (run.report.html) {
      report("<tr><td align=left colspan=6 %s>For Category %s</td></tr>\n", styleplain, category.c_str());
    } else {
      report("For Category %s\n", category.c_str());
    }
  }
  if (const Label& label = run.model.coef.gammanames1[g]; !isblank(label)) {
    reporttext(" For %s\n", label.text);
    reporthtml("<tr><td align=left colspan=6 %s> For %s</td></tr>\n", styleplain, label.text);
  }
  if (const Label& label = run.model.coef.gammanames2[g]; !isblank(label)) {
    reporttext("    For %s\n", label.text);
    reporthtml("<tr><td align=left colspan=6 %s>&nbsp;&nbsp;&nbsp;For %s</td></tr>\n", styleplain, label.text);
  }
  reporttext("      %s", run.model.coef.gammanames3[g].text);
  reporthtml("<tr><td %s>&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;%s", style,
             run.model.coef.gammanames3[g].text);
  report(isshared(g) ? "*" : " ");
  reporthtml("</td>");
}

const char* rowstyle(int g) { return g + 1 == run.model.coef.ngamma ? stylebottom : styleplain; }

void numbercell(const char* style, double value, int width, int decimals) {
  reporthtml("<td align=right valign=bottom %s>%s</td>\n", style, fixedpoint(value, width, decimals).c_str());
}

void outcomeline(TableKind kind) {
  const bool plausible = kind == TableKind::averagedpv || kind == TableKind::averagedrobustpv;
  if (run.model.outcome.single() && !plausible) {
    report(" The outcome variable is %s\n\n", eightcolumns(run.model.outname).c_str());
  } else if (plausible) {
    report(" The %s variables are: ", run.series.pvpredictor != 0 ? "plausible" : "outcome");
    const char* separator = "";
    for (const int v : run.series.pvlist) {
      report("%s%s", separator, eightcolumns(run.mdm.names1[v]).c_str());
      separator = ",";
    }
    report("\n\n");
  } else if (const Name& outcome = run.mdm.names1[run.model.outvar]; !leftname(outcome).empty()) {
    report(" The outcome variable is %s\n\n", eightcolumns(outcome).c_str());
  }
}

// The words that tell which of the models of a non-linear run a table belongs to.
const char* modelsuffix(PassKind pass) {
  if (!run.model.outcome.single()) return "";
  if (pass == PassKind::identity) return " (linear model with identity link function)";
  return pass == PassKind::populationaverage ? " (Population-average model)" : " (Unit-specific model)";
}
const char* robustlead(PassKind pass) {
  if (!run.model.outcome.single() || pass == PassKind::identity) return " (";
  return pass == PassKind::populationaverage ? " (Population-average model " : " (Unit-specific model ";
}

void heading(TableKind kind, PassKind pass) {
  switch (kind) {
    case TableKind::estimates:
    case TableKind::averagedpv:
    case TableKind::averagedmi:
      report(pass == PassKind::identity ? " Estimation of fixed effects:" : " Final estimation of fixed effects:");
      report("%s", modelsuffix(pass));
      reportbreak();
      break;
    case TableKind::robust:
    case TableKind::averagedrobustpv:
    case TableKind::averagedrobustmi:
      report(" Final estimation of fixed effects\n%swith robust standard errors)\n", robustlead(pass));
      break;
    case TableKind::leastsquares:
      report(" Least-squares estimates of fixed effects\n");
      break;
    case TableKind::leastsquaresrobust:
      report(" Least-squares estimates of fixed effects\n (with robust standard errors)\n");
      break;
    case TableKind::laplace:
    case TableKind::quadrature:
      report(" Final estimation of fixed effects\n (Unit-specific model)\n");
      break;
  }
}

void columnheads(TableKind kind) {
  if (run.report.html) {
    report("</h4>");
    opentable();
    report("<td align=left %s>Fixed Effect</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Coefficient</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Standard<br> error</td>\n", stylerule);
    report("<td align=right %s>&nbsp;<i>t</i>-ratio</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Approx.<br><i>d.f.</i></td>\n", stylerule);
    report("<td align=right %s>&nbsp;<i>p</i>-value</td>\n</tr>\n", stylerule);
    report("<tbody>\n");
    return;
  }
  reportrule(76);
  report("                                       Standard%s\n", isleastsquares(kind) ? "" : "             Approx.");
  report("    Fixed Effect         Coefficient   Error      T-ratio   d.f.     P-value\n");
  reportrule(76);
}

void fixedrow(const EffectTest& row, const char* style) {
  const char* mark = row.rough ? "#" : "";
  if (run.report.html) {
    numbercell(style, row.coefficient, 13, 6);
    numbercell(style, row.se, 10, 6);
    numbercell(style, row.t, 8, 3);
    if (!row.tested) {
      report("<td colspan=2 %s>Unable to compute</td></tr>", style);
      return;
    }
    report("<td align=right valign=bottom %s>%.*f</td>\n", style, row.fractional ? 1 : 0, row.df);
    if (row.p < 0.001) {
      report("<td align=right valign=bottom %s>&lt;0.001", style);
    } else {
      report("<td align=right valign=bottom %s>%5.3f", style, row.p);
    }
    report("%s</td>\n</tr>", mark);
    return;
  }
  report("%s  %s   %s ", fixedpoint(row.coefficient, 13, 6).c_str(), fixedpoint(row.se, 10, 6).c_str(),
         fixedpoint(row.t, 8, 3).c_str());
  if (row.tested) {
    report("%8.*f    %5.3f%s\n", row.fractional ? 1 : 0, row.df, row.p, mark);
  } else {
    report("Unable to compute\n");
  }
}

void ratiorow(const EffectTest& row, const char* style) {
  const double ratio = row.ratio;
  const Interval& interval = row.ratiointerval;
  if (run.report.html) {
    numbercell(style, row.coefficient, 13, 6);
    numbercell(style, ratio, 14, 6);
    if (interval.known) {
      report("<td align=right valign=bottom %s>(%.3f,%.3f)</td>\n</tr>", style, interval.low, interval.high);
    } else {
      report("<td align=right valign=bottom %s>Unable to compute</td>\n</tr>", style);
    }
    return;
  }
  report("  %s %s    ", fixedpoint(row.coefficient, 13, 6).c_str(), fixedpoint(ratio, 14, 6).c_str());
  if (interval.known) {
    report(" (%.3f,%.3f)\n", interval.low, interval.high);
  } else {
    report("Unable to compute\n");
  }
}

// The page of the text report with the table of the constraints; an HTML report is one page.
void constrainednote(const char* where) {
  if (run.model.nconstrained == 0) return;
  reportline(" The \"*\" gammas have been constrained%s",
             run.report.html ? ". See the table of the constraints." : where);
}

void ratioheads() {
  const bool rates = run.model.outcome.family == Family::poisson;
  if (run.report.html) {
    opentable();
    report("<td align=left %s>Fixed Effect</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Coefficient</td>\n", stylerule);
    report("<td align=center %s>&nbsp;%s<br>Ratio</td>\n", stylerule, rates ? "Event Rate" : "Odds");
    report("<td align=center %s>&nbsp;Confidence<br>Interval</td>\n</tr>\n<tbody>\n", stylerule);
    return;
  }
  reportrule(70);
  report("                                         %s     Confidence\n", rates ? "Event Rate" : "Odds      ");
  report("    Fixed Effect         Coefficient     Ratio          Interval\n");
  reportrule(70);
}

}  // namespace

void fixedtable(std::span<const EffectTest> effects, TableKind kind, PassKind pass) {
  const std::vector<int> openings = setopenings();
  reporthtml("<h4>");
  if (isestimates(kind)) reporttext("\f");
  outcomeline(kind);
  heading(kind, pass);
  columnheads(kind);
  bool anyrough = false;
  for (int g = 0; g < run.model.coef.ngamma; ++g) {
    const EffectTest& row = effects[static_cast<std::size_t>(g)];
    rowlead(g, openings[static_cast<std::size_t>(g)], rowstyle(g));
    fixedrow(row, rowstyle(g));
    anyrough = anyrough || (row.tested && row.rough);
  }
  reportrule(76);
  reporthtml("</tbody></table>\n");
  constrainednote(". See the table on page 1.");
  if (anyrough) reportline(" The p-vals above marked with a \"#\" should regarded as a rough approximation.");
  reportbreak();
}

void missingtable(std::span<const MissingShare> shares) {
  if (shares.empty()) return;
  const std::vector<int> openings = setopenings();
  if (run.report.html) {
    opentable();
    report("<td align=left %s>Fixed Effect</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Missing<br>Information</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Relative<br>Efficiency</td>\n</tr>\n<tbody>\n", stylerule);
  } else {
    reportrule(60);
    report("                           Fraction of      Relative\n");
    report("    Fixed Effect         missing inform.   efficiency\n");
    reportrule(60);
  }
  for (std::size_t g = 0; g < shares.size(); ++g) {
    const auto& [fraction, efficiency] = shares[g];
    const int row = static_cast<int>(g);
    rowlead(row, openings[g], rowstyle(row));
    if (run.report.html) {
      numbercell(rowstyle(row), fraction, 8, 3);
      numbercell(rowstyle(row), efficiency, 8, 3);
      report("</tr>");
    } else {
      report("   %s        %s\n", fixedpoint(fraction, 8, 3).c_str(), fixedpoint(efficiency, 8, 3).c_str());
    }
  }
  reportrule(60);
  reporthtml("</tbody></table>\n");
  reportbreak();
}

void ratiotable(std::span<const EffectTest> effects) {
  if (run.model.outcome.linear()) return;
  const std::vector<int> openings = setopenings();
  ratioheads();
  for (int g = 0; g < run.model.coef.ngamma; ++g) {
    rowlead(g, openings[static_cast<std::size_t>(g)], rowstyle(g));
    ratiorow(effects[static_cast<std::size_t>(g)], rowstyle(g));
  }
  reportrule(70);
  reporthtml("</tbody></table>\n");
  constrainednote(".  See the table on the header page.");
  reportbreak();
}

}  // namespace kdr
