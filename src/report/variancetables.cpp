#include "report/variancetables.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/modelrows.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

// The categories of a multinomial run; an empty text elsewhere.
using Categories = std::vector<std::string>;

std::string bracketed(const std::string& category, const char* otherwise) {
  return category.empty() ? otherwise : "(" + category + ")";
}

void reliabilitylabel(Tau which, int i, const std::string& category, const char* style) {
  const Coefficients& coef = run.model.coef;
  const bool pi = which == Tau::pi;
  std::string name = pi ? eightcolumns(labelof(coef.pinames, i))
                        : eightcolumns(labelof(coef.betanames1, i)) + "/" + eightcolumns(labelof(coef.betanames2, i));
  const std::string digits =
      pi ? std::to_string(subscriptof(coef.pisubs, i))
         : std::to_string(subscriptof(coef.betasubs1, i)) + std::to_string(subscriptof(coef.betasubs2, i));
  const std::string& symbol = pi ? run.sym.sym1 : run.sym.sym2;
  if (!run.report.html) {
    report("  %s, %s%s%s", name.c_str(), symbol.c_str(), digits.c_str(), bracketed(category, "      ").c_str());
    return;
  }
  report("<tr><td %s> %s", style, name.c_str());
  if (category.empty()) {
    report(",%s<sub><small><i>%s</i></sub></small>", symbol.c_str(), digits.c_str());
  } else {
    report("(%s), %s<sub><small><i>%s(%s)</i></small></sub></td>", category.c_str(), symbol.c_str(), digits.c_str(),
           category.c_str());
  }
}

void varianceheads(Tau which) {
  const bool pi = which == Tau::pi;
  report2(pi ? "\n\n Final estimation of level-1 and level-2 variance components:\n"
             : "\n\n Final estimation of level-3 variance components:\n",
          pi ? "\n<h4>Final estimation of level-1 and level-2 variance components</h4>\n"
             : "\n<h4>Final estimation of level-3 variance components</h4>\n");
  if (run.report.html) {
    opentable();
    report("<td align=left %s>Random Effect</td>\n", stylerule);
    report("<td align=right %s>Standard<br>&nbsp;Deviation</td>\n", stylerule);
    report("<td align=right %s>Variance<br>&nbsp;Component</td>\n", stylerule);
    report("<td align=right %s>&nbsp;&nbsp;<i>d.f.</i></td>\n", stylerule);
    report("<td align=center %s>&chi;<sup><small>2</small></sup></td>\n", stylerule);
    report("<td align=right %s><i>p</i>-value</td>\n</tr>\n", stylerule);
    report("<tbody>\n");
    return;
  }
  reportrule(78);
  report(" Random Effect           Standard      Variance     df    Chi-square   P-value\n");
  report("                         Deviation     Component\n");
  reportrule(78);
}

// Label, standard deviation and variance of a row of taupi.
void level2effect(int i, const std::string& category, double variance, const char* style) {
  const std::string name = eightcolumns(labelof(run.model.coef.pinames, i));
  const int subscript = subscriptof(run.model.coef.pisubs, i);
  const bool intercept = i == 0 && subscript == 0 && !run.model.nointercept1;
  const std::string deviation = fixedpoint(std::sqrt(variance), 12, 5), value = fixedpoint(variance, 12, 5);
  if (run.report.html) {
    const std::string kind = !category.empty() ? "(" + category + ")," : intercept ? "," : " slope,";
    report("<tr><td %s>%s%s %s<sub><small><i>%d</i></small></sub></td>", style, name.c_str(), kind.c_str(),
           run.sym.symr2.c_str(), subscript);
    report("<td align=right %s>%s</td><td align=right %s>%s</td>", style, deviation.c_str(), style, value.c_str());
    return;
  }
  const std::string kind = !category.empty() ? "(" + category + "),    " : intercept ? ",      " : " slope,";
  report(" %s%s%3s%d %s  %s  ", name.c_str(), kind.c_str(), run.sym.symr2.c_str(), subscript, deviation.c_str(),
         value.c_str());
}

// The same for a row of taubeta.
void level3effect(int i, const std::string& category, double variance, const char* style) {
  const Coefficients& coef = run.model.coef;
  const std::string name1 = eightcolumns(labelof(coef.betanames1, i));
  const std::string name2 = eightcolumns(labelof(coef.betanames2, i));
  const int s = subscriptof(coef.betasubs1, i), t = subscriptof(coef.betasubs2, i);
  const std::string deviation = fixedpoint(std::sqrt(variance), 12, 5), value = fixedpoint(variance, 12, 5);
  if (run.report.html) {
    report("<tr><td %s>%s/%s%s, %s<sub><small><i>%d%d</i></small></sub></td>", style, name1.c_str(), name2.c_str(),
           bracketed(category, "").c_str(), run.sym.symr3.c_str(), s, t);
    report("<td align=right %s>%s</td><td align=right %s>%s</td>", style, deviation.c_str(), style, value.c_str());
    return;
  }
  report("%s/%s%s,%3s%d%d%s%s%s  ", name1.c_str(), name2.c_str(), bracketed(category, "").c_str(),
         run.sym.symr3.c_str(), s, t, deviation.c_str(), category.empty() ? "  " : "", value.c_str());
}

// Degrees of freedom, chi-square and p-value, and the end of the row.
void chisquare(Tau which, const VarianceTest& test, const char* style) {
  if (!test.known) {
    reporttext("  too few df to compute\n");
    reporthtml("<td align=left colspan=3 %s>too few df to compute</td></tr>\n", style);
    return;
  }
  const auto& [statistic, df, df2, p] = test.chisquare;
  if (run.report.html) {
    report("<td align=right %s>%d</td><td align=right %s>%12.5f</td>", style, df, style, statistic);
    report("<td align=right %s>%s</td></tr>\n", style, pvalue(p, 3).c_str());
  } else {
    report("%s%4d  %12.5f    %s\n", which == Tau::pi ? "  " : "", df, statistic, pvalue(p, 3).c_str());
  }
}

void level1effect(double sigma2) {
  const std::string deviation = fixedpoint(std::sqrt(sigma2), 12, 5), value = fixedpoint(sigma2, 12, 5);
  reporttext("  level-1,      %3s  %s  %s\n", run.sym.syme.c_str(), deviation.c_str(), value.c_str());
  reporthtml("<tr><td align=right %s>level-1, %s</td>", stylebottom, run.sym.syme.c_str());
  reporthtml("<td align=right %s>%s</td><td align=right %s>%s</td>", stylebottom, deviation.c_str(), stylebottom,
             value.c_str());
  for (int i = 0; i < 3; ++i) reporthtml("<td %s>&nbsp;</td>", stylebottom);
  reporthtml("</tr>\n");
}

}  // namespace

void reliabilitytable(Tau which, int n, const double* values) {
  const int level = which == Tau::pi ? 1 : 2;
  const Categories categories = randomcategories(which, n);
  reportbreak();
  if (run.report.html) {
    opentable();
    report("<td align=left %s>Random level-%d coefficient</td>\n", stylerule, level);
    report("<td %s>&nbsp;&nbsp;Reliability estimate</td>\n</tr>\n<tbody>\n", stylerule);
  } else {
    reportrule(52);
    report("  Random level-%d coefficient   Reliability estimate\n", level);
    reportrule(52);
  }
  for (int i = 0; i < n; ++i) {
    const char* style = i + 1 == n ? stylebottom : styleplain;
    const std::string value = fixedpoint(values[i], 5, 3);
    reliabilitylabel(which, i, categories[static_cast<std::size_t>(i)], style);
    reporttext("%s%s\n", level == 1 ? "                  " : "         ", value.c_str());
    reporthtml("<td align=center %s>%s</td></tr>\n", style, value.c_str());
  }
  reportrule(52);
  reporthtml("</tbody></table>\n");
}

void variancetable(Tau which, const Array<double>& tau, std::span<const VarianceTest> tests, double sigma2) {
  const int n = static_cast<int>(tests.size());
  if (n == 0 && which == Tau::beta) return;  // the other table has the level-1 variance
  const Categories categories = randomcategories(which, n);
  varianceheads(which);
  for (int i = 0; i < n; ++i) {
    // Of tau(pi) the row of the level-1 variance closes the table.
    const char* style = which == Tau::beta && i + 1 == n ? stylebottom : styleplain;
    const double variance = std::max(0.0, tau[i * n + i]);
    const std::string& category = categories[static_cast<std::size_t>(i)];
    if (which == Tau::pi) {
      level2effect(i, category, variance, style);
    } else {
      level3effect(i, category, variance, style);
    }
    chisquare(which, tests[static_cast<std::size_t>(i)], style);
  }
  if (which == Tau::pi && !run.model.restrictions.fixsigma2) level1effect(sigma2);
  reportrule(78);
  reporthtml("</tbody></table>\n");
}

void partialdatanote(const char* what, int used, int total) {
  reportbreak();
  reporttext("\n");
  reportline("Note: The %s reported above are based on only %d of %d", what, used, total);
  reportline("units that had sufficient data for computation.  Fixed effects and variance");
  reportline("components are based on all the data.");
}

}  // namespace kdr
