#include "report/hypotheses.h"

#include <span>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

constexpr const char* plaincell = "style='border:none'";

void testheading(const WaldTest& test) {
  if (run.report.html) {
    report("<h5>Results of General Linear Hypothesis Testing - Test %d</h5>", test.number + 1);
    opentable();
    report("<td align=right %s>&nbsp;</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Coefficients&nbsp;</td>\n", stylerule);
    report("<td align=center %s colspan=%d>&nbsp;Contrast&nbsp;</td></tr>\n", stylerule, test.r);
    report("<tbody>\n");
    return;
  }
  report("\f                Results of General Linear Hypothesis Testing\n");
  reportrule(77);
  report("                            Coefficients      Contrast\n");
  reportrule(77);
}

void contrastrow(const WaldTest& test, int g, double gamma) {
  const Coefficients& coef = run.model.coef;
  reporthtml("<tr>");
  if (const Label& label = coef.gammanames1[g]; !isblank(label)) {
    reporttext(" For %s\n", label.text);
    reporthtml("<td %s colspan=%d>For %s</td></tr><tr>", styleplain, test.r + 2, label.text);
  }
  if (const Label& label = coef.gammanames2[g]; !isblank(label)) {
    reporttext("    For %s\n", label.text);
    reporthtml("<td %s colspan=%d>&nbsp;&nbsp;&nbsp;&nbsp;For %s</td></tr><tr>", styleplain, test.r + 2, label.text);
  }
  const std::string value = fixedpoint(gamma, 14, 6);
  reporttext("         %s  %s ", coef.gammanames3[g].text, value.c_str());
  reporthtml("<td %s>&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;%s</td><td align=right %s>%s</td>", styleplain,
             coef.gammanames3[g].text, styleplain, value.c_str());
  for (int row = 0; row < test.r; ++row) {
    const double contrast = test.C[row * test.n + g];
    reporttext("   %s", fixedpoint(contrast, 7, 3).c_str());
    reporthtml("<td align=right %s>%s</td>", styleplain, fixedpoint(contrast, 7, 4).c_str());
  }
  report2("\n", "</tr>\n");
}

void estimaterows(const WaldTest& test) {
  const auto cell = [](double value) {
    reporttext(" %s", fixedpoint(value, 9, 5).c_str());
    reporthtml("<td align=right style='border:none' >%s</td>", fixedpoint(value, 7, 4).c_str());
  };
  reportrule(77);
  reporttext(" Estimate%31s", "");
  reporthtml("<tr><td %s colspan=2>Estimate</td>", plaincell);
  for (const double estimate : test.estimates) cell(estimate);
  report2("\n", "</tr>\n<tr>");
  reporttext(" Standard Error of estimate%13s", "");
  reporthtml("<td %s colspan=2>Standard error of estimate</td>", plaincell);
  for (const double error : test.errors) cell(error);
  report2("\n", "</tr>\n</tbody></table>\n");
}

void statisticlines(const ChiSquareTest& test) {
  const std::string p = pvalue(test.p, 6);
  if (run.report.html) {
    reportblank(4);
    report("&chi;<sup><small>2</small></sup>&nbsp;statistic = %f<br>", test.statistic);
    reportblank(4);
    report("Degrees of freedom   = %d<br>", test.df);
    reportblank(4);
    report("<i>p</i>-value              = %s<br>", p.c_str());
  } else {
    report("\nChi-square statistic = %f\nDegrees of freedom   = %d\nP-value              = %s\n", test.statistic,
           test.df, p.c_str());
  }
  if (test.df2 == 0.0) return;
  reportline("The p-value is that of F = %f with %d and %.1f degrees of freedom.", test.statistic / test.df, test.df,
             test.df2);
}

void writetest(const WaldTest& test, std::span<const EffectTest> effects) {
  testheading(test);
  for (int g = 0; g < test.n; ++g) contrastrow(test, g, effects[at(g)].coefficient);
  if (!test.computed) {
    reporthtml("</tbody></table>\n");
    reportline("It appears that the %d constrasts you are testing are not independent.", test.r);
    reportline("The chi-square cannot be computed.");
    return;
  }
  estimaterows(test);
  if (!test.denominator) return reportline("The degrees of freedom of this test cannot be computed.");
  statisticlines(test.chisquare);
}

}  // namespace

void hypothesistests(const EffectTable& effects) {
  if (effects.toomanycontrasts) reportline("Sorry, but the number of contrasts cannot exceed the number of gammas.");
  for (const WaldTest& test : effects.hypotheses) writetest(test, effects.rows);
}

}  // namespace kdr
