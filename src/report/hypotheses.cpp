#include "report/hypotheses.h"

#include <cmath>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/array.h"
#include "kernel/decompositions.h"
#include "report/stream.h"
#include "report/symbols.h"
#include "report/teststatistics.h"

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
    const double contrast = test.C[static_cast<std::ptrdiff_t>(row) * test.n + g];
    reporttext("   %s", fixedpoint(contrast, 7, 3).c_str());
    reporthtml("<td align=right %s>%s</td>", styleplain, fixedpoint(contrast, 7, 4).c_str());
  }
  report2("\n", "</tr>\n");
}

// e = C gamma (r) and W = C vgamma C' (r x r).
void contrastestimates(const WaldTest& test, const double* gamma, const double* vgamma, int stride, Array<double>& e,
                       Array<double>& W) {
  const auto row = [&](int i) { return test.C + static_cast<std::ptrdiff_t>(i) * test.n; };
  Array<double> Vc(static_cast<std::size_t>(test.n));
  for (int j = 0; j < test.r; ++j) {
    for (int g = 0; g < test.n; ++g) {
      e[j] += row(j)[g] * gamma[g];
      Vc[g] = 0.0;
      for (int h = 0; h < test.n; ++h) Vc[g] += vgamma[static_cast<std::ptrdiff_t>(g) * stride + h] * row(j)[h];
    }
    for (int i = 0; i < test.r; ++i) {
      double& w = W[static_cast<std::size_t>(i) * static_cast<std::size_t>(test.r) + static_cast<std::size_t>(j)];
      for (int g = 0; g < test.n; ++g) w += row(i)[g] * Vc[g];
    }
  }
}

// Inverts W; false when the contrasts are not independent.
bool invertcontrasts(int r, const Array<double>& W, Array<double>& inverse) {
  for (int i = 0; i < r; ++i)
    if (W[static_cast<std::size_t>(i) * static_cast<std::size_t>(r + 1)] < 0.0) return false;
  if (hasunitcorrelation(r, W.data(), r) || !ispositivedefinite(r, W.data(), r, nullptr)) return false;
  return invertsymmetric(r, W.data(), inverse.data()).result == 0;
}

// e' W^-1 e.
double waldstatistic(int r, const Array<double>& e, const Array<double>& inverse) {
  double sum = 0.0;
  for (int i = 0; i < r; ++i)
    for (int j = 0; j < r; ++j)
      sum += e[i] * inverse[static_cast<std::size_t>(i) * static_cast<std::size_t>(r) + static_cast<std::size_t>(j)] *
             e[j];
  return sum;
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

void statisticlines(int r, double statistic) {
  const auto [small, p] = chisquaretail(r, statistic);
  if (!run.report.html) {
    report("\nChi-square statistic = %f\nDegrees of freedom   = %d\nP-value              = ", statistic, r);
    if (small) {
      report(">.500\n");
    } else {
      report("%f\n", p);
    }
    return;
  }
  reportblank(4);
  report("&chi;<sup><small>2</small></sup>&nbsp;statistic = %f<br>", statistic);
  reportblank(4);
  report("Degrees of freedom   = %d<br>", r);
  reportblank(4);
  report("<i>p</i>-value              = ");
  if (small) {
    report(">.500<br>");
  } else if (p < 0.001) {
    report("&lt;0.001");
    reportbreak();
  } else {
    report("%f<br>", p);
  }
}

// Fills what follows the contrasts.
void computetest(WaldTest& test, const double* gamma, const double* vgamma, int stride) {
  const auto r = static_cast<std::size_t>(test.r);
  Array<double> W(r * r), inverse(r * r);
  test.estimates.reset(r);
  contrastestimates(test, gamma, vgamma, stride, test.estimates, W);
  test.computed = test.r <= test.n && invertcontrasts(test.r, W, inverse) &&
                  std::isfinite(test.statistic = waldstatistic(test.r, test.estimates, inverse));
  if (!test.computed) return;
  test.errors.reset(r);
  for (std::size_t i = 0; i < r; ++i) test.errors[i] = std::sqrt(W[i * (r + 1)]);
}

void writetest(const WaldTest& test, const double* gamma) {
  testheading(test);
  for (int g = 0; g < test.n; ++g) contrastrow(test, g, gamma[g]);
  if (!test.computed) {
    reporthtml("</tbody></table>\n");
    reportline("It appears that the %d constrasts you are testing are not independent.", test.r);
    reportline("The chi-square cannot be computed.");
    return;
  }
  estimaterows(test);
  statisticlines(test.r, test.statistic);
}

bool toomanycontrasts(int n) { return !run.model.hypothesisrows.empty() && run.model.hypothesisrows[0] > n; }

}  // namespace

std::vector<WaldTest> waldtests(int n, const double* gamma, const double* vgamma, int stride) {
  const Model& model = run.model;
  std::vector<WaldTest> tests;
  if (toomanycontrasts(n)) return tests;
  std::size_t first = 0;  // in contrasts
  for (std::size_t h = 0; h < model.hypothesisrows.size() && model.hypothesisrows[h] > 0; ++h) {
    const int r = model.hypothesisrows[h];
    const std::size_t next = first + static_cast<std::size_t>(r) * static_cast<std::size_t>(n);
    if (next > model.contrasts.size()) break;
    WaldTest& test = tests.emplace_back();
    test.number = static_cast<int>(h);
    test.r = r;
    test.n = n;
    test.C = model.contrasts.data() + first;
    computetest(test, gamma, vgamma, stride);
    first = next;
  }
  return tests;
}

void hypothesistest(int n, const double* gamma, const double* vgamma, int stride) {
  if (toomanycontrasts(n)) {
    reportline("Sorry, but the number of contrasts cannot exceed the number of gammas.");
    return;
  }
  for (const WaldTest& test : waldtests(n, gamma, vgamma, stride)) writetest(test, gamma);
}

}  // namespace kdr
