#include "report/latentreport.h"

#include <cmath>
#include <string>

#include "core/formatted.h"
#include "core/tables.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "report/modelrows.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

constexpr int rulewidth = 78;

// How one row of the tables names a random level-2 coefficient.
struct CoefficientName {
  std::string variable1, variable2;  // eight columns each
  std::string digits;                // its two subscripts
};

CoefficientName nameof(int i) {
  const Coefficients& coef = run.model.coef;
  return {eightcolumns(labelof(coef.betanames1, i)), eightcolumns(labelof(coef.betanames2, i)),
          std::to_string(subscriptof(coef.betasubs1, i)) + std::to_string(subscriptof(coef.betasubs2, i))};
}

// A symbol with its subscript, starred where `star` is set; in HTML the subscript is set as one.
std::string subscripted(const std::string& symbol, const std::string& digits, bool star = false) {
  if (!run.report.html) return symbol + digits + (star ? "*" : "");
  return symbol + "<sub><small><i>" + digits + "</i></small></sub>" + (star ? "<sup>*</sup>" : "");
}

const Name& termname(int variable) { return run.mdm.names3[at(variable)]; }

// The last subscript of a term or predictor counts from 0.
std::string numbered(const CoefficientName& outcome, std::size_t number) {
  return outcome.digits + std::to_string(number);
}

// Outcome = terms + predictors + residual. The first term is the intercept where the equations have one.
void equation(const LatentRegression& regression, int outcome) {
  const CoefficientName name = nameof(outcome);
  report2("\t", "&nbsp;&nbsp;&nbsp;&nbsp;");
  report("%s = ", subscripted(run.sym.sym2, name.digits).c_str());
  std::size_t number = 0;
  for (const int variable : regression.terms) {
    if (number > 0) report(" + ");
    report("%s", subscripted(run.sym.sym3, numbered(name, number), number == 0).c_str());
    if (variable != 0)
      report("%s(%s)", run.report.html || number != 0 ? "*" : "", bareword(termname(variable)).c_str());
    ++number;
  }
  for (const int predictor : regression.predictors) {
    report("%s%s*(%s)", number > 0 ? " + " : "", subscripted(run.sym.sym3, numbered(name, number)).c_str(),
           subscripted(run.sym.sym2, nameof(predictor).digits).c_str());
    ++number;
  }
  report(" + %s", subscripted(run.sym.symr3, name.digits, true).c_str());
  reportbreak();
  reportbreak();
}

// A number by "%<width>.<decimals>f", or with an exponent in the same width where that would show less than three
// digits of it: no unit of a predictor makes a coefficient 0.
std::string legible(double value, int width, int decimals) {
  const bool lost = value != 0.0 && std::isfinite(value) && std::fabs(value) < std::pow(10.0, 2 - decimals);
  constexpr int around = 7;  // sign, first digit, point and E-07
  return lost ? formatted("%*.*E", width, width - around, value) : fixedpoint(value, width, decimals);
}

// The four numbers of a row, and its end.
void numbers(const LatentTest& test, const char* style) {
  const auto cell = [&](const std::string& value, const char* end) {
    report("<td align=right valign=bottom %s>%s</td>%s\n", style, value.c_str(), end);
  };
  if (run.report.html) {
    cell(legible(test.estimate, 13, 6), "");
    cell(legible(test.error, 10, 6), "");
    cell(fixedpoint(test.t, 8, 3), "");
    cell(fixedpoint(test.p, 5, 3), "</tr>");
    return;
  }
  report("%s %s %s  %s\n", legible(test.estimate, 13, 6).c_str(), legible(test.error, 10, 5).c_str(),
         fixedpoint(test.t, 8, 3).c_str(), fixedpoint(test.p, 5, 3).c_str());
}

void coefficientheads() {
  if (run.report.html) {
    opentable();
    report("<td align=center %s>Outcome</td>\n<td align=center %s>Predictor</td>\n", stylerule, stylerule);
    report("<td align=right %s>Estimated<br>Coefficient</td>\n", stylerule);
    report("<td align=right %s>&nbsp;Standard<br>Error</td>\n", stylerule);
    report("<td align=right %s>&nbsp;<i>t</i>-ratio</td>\n", stylerule);
    report("<td align=right %s>&nbsp;<i>p</i>-value</td>\n</tr>\n<tbody>\n", stylerule);
    return;
  }
  reportrule(rulewidth);
  report("     Outcome            Predictor         Estimated    Standard T-ratio P-value\n");
  report("                                          Coefficient  Error\n");
  reportrule(rulewidth);
}

std::string outcomecell(const CoefficientName& name) {
  return name.variable1 + "/" + name.variable2 + "," + subscripted(run.sym.sym2, name.digits);
}

void coefficientrows(const LatentRegression& regression, std::size_t row, bool lasttable) {
  const CoefficientName name = nameof(regression.outcomes[row]);
  const std::size_t nW = regression.terms.size(), nP = regression.predictors.size();
  for (std::size_t k = 0; k < nW + nP; ++k) {
    const char* style = lasttable && k + 1 == nW + nP ? stylebottom : styleplain;
    const std::string gamma = subscripted(run.sym.sym3, numbered(name, k), true);
    std::string predictor;
    if (k < nW) {
      predictor = eightcolumns(termname(regression.terms[k])) + "," + gamma;
    } else {
      predictor = subscripted(run.sym.sym2, nameof(regression.predictors[k - nW]).digits) + "," + gamma;
    }
    reporthtml("<tr><td %s>%s</td>\n<td %s>%s</td>\n", style, k == 0 ? outcomecell(name).c_str() : "&nbsp;", style,
               predictor.c_str());
    if (k == 0) {
      reporttext(" %s  %s", outcomecell(name).c_str(), predictor.c_str());
    } else {
      reporttext("%*s%s", k < nW ? 24 : 29, "", predictor.c_str());
    }
    if (k < nW) {
      numbers(regression.adjusted[row * nW + k], style);
    } else {
      numbers(regression.slopes[row * nP + k - nW], style);
    }
  }
}

void comparisonheads() {
  report2("\n Latent Variable Regression: Comparison of Original and Adjusted Coefficients\n",
          "<h5>Latent Variable Regression: Comparison of Original and Adjusted Coefficients</h5>");
  if (run.report.html) {
    opentable();
    report("<td align=center %s>Outcome</td>\n<td align=center %s>Predictor</td>\n", stylerule, stylerule);
    report("<td align=right %s>Original<br>Coefficient</td>\n", stylerule);
    report("<td align=right %s>Adjusted<br>Coefficient</td>\n", stylerule);
    report("<td align=right %s>Difference</td>\n", stylerule);
    report("<td align=right %s>Standard<br>Error<br>Difference</td>\n</tr>\n<tbody>\n", stylerule);
    return;
  }
  reportrule(rulewidth);
  report("     Outcome       Predictor    Original    Adjusted     Difference  Standard\n");
  report("                                Coefficient Coefficient              Error of\n");
  report("                                                                     Difference\n");
  reportrule(rulewidth);
}

void comparisonrows(const LatentRegression& regression, std::size_t row, bool lasttable) {
  const CoefficientName name = nameof(regression.outcomes[row]);
  const std::size_t nW = regression.terms.size();
  for (std::size_t k = 0; k < nW; ++k) {
    const char* style = lasttable && k + 1 == nW ? stylebottom : styleplain;
    const std::size_t i = row * nW + k;
    const auto& [difference, error, t, p] = regression.differences[i];
    const std::string term = eightcolumns(termname(regression.terms[k]));
    if (run.report.html) {
      report("<tr><td %s>%s</td>\n<td %s>%s</td>\n", style, k == 0 ? outcomecell(name).c_str() : "&nbsp;", style,
             term.c_str());
      for (const double value : {regression.GO[i], regression.Gadj[i], difference})
        report("<td align=right valign=bottom %s>%s</td>\n", style, legible(value, 11, 5).c_str());
      report("<td align=right valign=bottom %s>%s</td></tr>\n", style, legible(error, 10, 5).c_str());
      continue;
    }
    if (k == 0) {
      report(" %s", outcomecell(name).c_str());
    } else {
      report("%22s", "");
    }
    report("  %s%s %s %s  %s\n", term.c_str(), legible(regression.GO[i], 11, 5).c_str(),
           legible(regression.Gadj[i], 11, 5).c_str(), legible(difference, 11, 5).c_str(),
           legible(error, 10, 5).c_str());
  }
}

void closetable() {
  reportrule(rulewidth);
  reporthtml("</tbody></table>\n");
}

void residualcovariance(const LatentRegression& regression) {
  report2("\n Var(%s*)\n", "<br>Var(%s<sup>*</sup>)<br>", run.sym.symr3.c_str());
  const std::size_t nO = regression.outcomes.size();
  const std::vector<std::string> categories = randomcategories(Tau::beta, run.model.coef.ntaubeta);
  for (std::size_t i = 0; i < nO; ++i) {
    const int coefficient = regression.outcomes[i];
    const CoefficientName name = nameof(coefficient);
    const auto place = at(coefficient);
    const std::string category =
        place < categories.size() && !categories[place].empty() ? "(" + categories[place] + ")" : "";
    report2("\t", "&nbsp;&nbsp;&nbsp;&nbsp;");
    report2("%s/%s,%s%s%s", "%s/%s,%s<sub><small><i>%s</i></small></sub>&nbsp;&nbsp;%s", name.variable1.c_str(),
            name.variable2.c_str(), run.sym.sym2.c_str(), name.digits.c_str(), category.c_str());
    for (std::size_t j = 0; j < nO; ++j) report(" %s", legible(regression.R[i * nO + j], 12, 5).c_str());
    reportbreak();
  }
}

}  // namespace

void latentreport(const LatentRegression& regression, const std::string& whose) {
  if (!regression.computable) {
    reportline("%s", nolatentregression);
    return;
  }
  report2("\n\nLatent Variable Regression Results\n\n", "<h4>Latent Variable Regression Results</h4>");
  if (!whose.empty()) reportline("From the estimates of %s.", whose.c_str());
  for (const int coefficient : regression.outcomes) equation(regression, coefficient);
  const std::size_t nO = regression.outcomes.size();
  coefficientheads();
  for (std::size_t row = 0; row < nO; ++row) coefficientrows(regression, row, row + 1 == nO);
  closetable();
  comparisonheads();
  for (std::size_t row = 0; row < nO; ++row) comparisonrows(regression, row, row + 1 == nO);
  closetable();
  residualcovariance(regression);
}

}  // namespace kdr
