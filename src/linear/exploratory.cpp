#include "linear/exploratory.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "model/modelwalk.h"
#include "report/stream.h"

namespace kdr {

namespace {

double squared(double x) { return x * x; }

// One candidate's regression. A coefficient of missingcode cannot be computed and prints as NC.
struct Regression {
  double coefficient = missingcode;
  double error = 0.0;
  [[nodiscard]] double t() const { return error == 0.0 ? 0.0 : coefficient / error; }
};

// Sums of squares and products of n residuals and m predictors about their means.
struct Products {
  int n = 0, m = 0;
  Array<double> ssr, ssx, sxy;  // [n], [m], n rows of m
  Array<double> rawx;           // [m], sums of squares about 0

  void reset(int residuals, int predictors) {
    n = residuals;
    m = predictors;
    ssr.reset(at(n));
    ssx.reset(at(m));
    sxy.reset(at(n) * at(m));
    rawx.reset(at(m));
  }
  // One unit, by its deviations from the means.
  void add(const double* dr, const double* dx) {
    for (int x = 0; x < m; ++x) ssx[x] += dx[x] * dx[x];
    for (int c = 0; c < n; ++c) {
      ssr[c] += dr[c] * dr[c];
      for (int x = 0; x < m; ++x) sxy[c * m + x] += dr[c] * dx[x];
    }
  }
};

Products level2products(Pass& pass) {
  const int p = pass.p, m = run.mdm.nvar2;
  Products products;
  products.reset(p, m);
  Array<double> meanu(at(run.mdm.nunits3) * at(p)), meanx(at(run.mdm.nunits3) * at(m));
  const auto nothing = [](int) {};
  sweepunits(
      pass.n2of, nothing,
      [&](int k, std::size_t, const double* hot, const double* cold) {
        const double units = pass.n2of[k];
        for (int c = 0; c < p; ++c) meanu[k * p + c] += hot[pass.store.atustar + at(c)] / units;
        for (int x = 0; x < m; ++x) meanx[k * m + x] += cold[pass.store.atlevel2 + at(x)] / units;
      },
      nothing, reading(pass.store.hot), reading(pass.store.cold));
  Array<double> du(at(p)), dx(at(m));
  sweepunits(
      pass.n2of, nothing,
      [&](int k, std::size_t, const double* hot, const double* cold) {
        for (int c = 0; c < p; ++c) du[c] = hot[pass.store.atustar + at(c)] - meanu[k * p + c];
        for (int x = 0; x < m; ++x) dx[x] = cold[pass.store.atlevel2 + at(x)] - meanx[k * m + x];
        products.add(du.data(), dx.data());
        for (int x = 0; x < m; ++x) products.rawx[x] += squared(cold[pass.store.atlevel2 + x]);
      },
      nothing, reading(pass.store.hot), reading(pass.store.cold));
  return products;
}

Products level3products(const Pass& pass) {
  const int b = pass.b, m = run.mdm.nvar3, units = run.mdm.nunits3;
  Products products;
  products.reset(b, m);
  Array<double> meanv(at(b)), meanx(at(m)), dv(at(b)), dx(at(m));
  for (int k = 0; k < units; ++k) {
    for (int c = 0; c < b; ++c) meanv[c] += pass.vstar.row(k)[c] / units;
    for (int x = 0; x < m; ++x) meanx[x] += run.mdm.level3[k * m + x] / units;
  }
  for (int k = 0; k < units; ++k) {
    for (int c = 0; c < b; ++c) dv[c] = pass.vstar.row(k)[c] - meanv[c];
    for (int x = 0; x < m; ++x) dx[x] = run.mdm.level3[k * m + x] - meanx[x];
    products.add(dv.data(), dx.data());
    for (int x = 0; x < m; ++x) products.rawx[x] += squared(run.mdm.level3[k * m + x]);
  }
  return products;
}

constexpr int fewunits = 2;  // no more than this many units have no regression

// Residual c on predictor x (from 0). At level 2 the residual variance is that left by the fit; at level 3 it is that
// of the residuals themselves.
Regression regress(const Products& products, int level, int c, int x, int units) {
  Regression fit;
  const double ssx = products.ssx[x];
  // What is left of a constant by rounding is no variation.
  constexpr double rounding = 1e-24;
  if (ssx <= rounding * products.rawx[x] || units <= fewunits) return fit;
  fit.coefficient = products.sxy[c * products.m + x] / ssx;
  const double explained = level == 2 ? fit.coefficient * fit.coefficient * ssx : 0.0;
  const double variance = (products.ssr[c] - explained) / (units - 2) / ssx;
  fit.error = variance > 0.0 ? std::sqrt(variance) : 0.0;
  return fit;
}

void heading(int level, int columns) {
  reporttext(
      " Exploratory Analysis: estimated level-%d coefficients and their standard errors\n"
      "         obtained by regressing EB residuals on level-%d predictors selected for\n"
      "         possible inclusion in subsequent runs\n\n",
      level, level);
  reportrule(77);
  reporttext("%s", level == 2 ? " Level-1 Coefficient          Potential Level-2 Predictors\n"
                              : " Level-2 Predictor            Potential Level-3 Predictors\n");
  reportrule(77);
  if (!run.report.html) return;
  const char* indent = "&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;&nbsp;";
  reporthtml("<h4> Exploratory Analysis: estimated level-%d coefficients and their standard errors<br>\n", level);
  reporthtml("%sobtained by regressing EB residuals on level-%d predictors selected for<br>\n", indent, level);
  reporthtml("%spossible inclusion in subsequent KDR runs</h4>\n", indent);
  opentable();
  reporthtml("<td align=left %s>Level-%d Coefficient</td>\n", stylerule, level - 1);
  reporthtml("<td align=center colspan=%d %s>Potential Level-%d Predictors</td>\n</tr>\n<tbody>\n", columns, stylerule,
             level);
}

// One row of a block: a word and a number per candidate.
enum class Row { coefficient, error, t };
void blockrow(Row row, const Regression* fits, int n) {
  static constexpr const char* textwords[] = {"    Coefficient         ", "    Standard Error      ",
                                              "    t value             "};
  static constexpr const char* htmlwords[] = {"Coefficient", "Standard Error", "t-value"};
  reporttext("%s", textwords[static_cast<int>(row)]);
  reporthtml("<tr><td %s>%s</td>", styleplain, htmlwords[static_cast<int>(row)]);
  for (int i = 0; i < n; ++i) {
    const bool nc = fits[i].coefficient == missingcode;
    const double value = row == Row::coefficient ? fits[i].coefficient
                         : row == Row::error     ? fits[i].error
                                                 : fits[i].t();
    if (nc && row == Row::coefficient) {
      reporttext("   NC    ");
      reporthtml("<td align=right %s>NC</td>", styleplain);
    } else {
      reporttext("%8.3f ", nc ? 0.0 : value);
      reporthtml("<td align=right %s>%8.3f</td>", styleplain, nc ? 0.0 : value);
    }
  }
  report2("\n", "</tr>\n");
}

void names(const int* variables, int n, const Array<Name>& table) {
  reporttext("\n%24s", "");
  reporthtml("<tr><td %s>&nbsp;</td>", styleplain);
  for (int i = 0; i < n; ++i) {
    const std::string name = eightcolumns(table[variables[i]]);
    reporttext("%s ", name.c_str());
    reporthtml("<td align=right %s>%s</td>", styleplain, name.c_str());
  }
  report2("\n", "</tr>\n");
}

void spacer(int columns, const char* style) {
  reporthtml("<tr><td colspan=%d %s><small><small>&nbsp;</small></small></td></tr>", columns + 1, style);
}

// A block of candidates of one coefficient; `label` writes the coefficient's own line.
template <class WriteLabel>
void block(const int* variables, const Regression* fits, int n, int columns, const Array<Name>& table,
           WriteLabel label) {
  spacer(columns, styleplain);
  if (run.report.html) label();
  names(variables, n, table);
  if (!run.report.html) label();
  for (const Row row : {Row::coefficient, Row::error, Row::t}) blockrow(row, fits, n);
}

void closetable(int columns) {
  spacer(columns, stylebottom);
  reporthtml("</tbody></table>");
}

// Why there are coefficients of NC.
void ncnote(int level, int units) {
  if (units <= fewunits) {
    reportline("The coefficients of NC cannot be computed: there are too few level-%d units.", level);
  } else {
    reportline("For variables with coefficients of NC, there is no variation at level %d.", level);
  }
}

int most(const IntTable& counts) { return *std::max_element(counts.cells.begin(), counts.cells.end()); }

void level2analysis(Pass& pass) {
  constexpr int perblock = 6;
  const Products products = level2products(pass);
  const int columns = std::min(perblock, most(run.model.nextra2));
  heading(2, columns);
  int r = 0, missing = 0;
  for (const CoefficientRow& coefficient : modelrows().coefficients) {
    if (!coefficient.random) continue;
    const int* variables = run.model.extra2.row(coefficient.set, coefficient.place);
    const int n = run.model.nextra2.row(coefficient.set)[coefficient.place];
    Regression fits[maxextra];
    for (int i = 0; i < n; ++i) {
      fits[i] = regress(products, 2, r, variables[i] - 1, run.mdm.nunits2);
      missing += fits[i].coefficient == missingcode;
    }
    for (int from = 0; from < n; from += perblock)
      block(variables + from, fits + from, std::min(perblock, n - from), columns, run.mdm.names2, [&] {
        const std::string name = eightcolumns(run.coef.pinames[r]);
        const int subscript = run.coef.pisubs[r];
        reporttext(" %s, %s%1d\n", name.c_str(), run.sym.sym1.c_str(), subscript);
        reporthtml("<tr><td align=right %s>%s,%s<sub><small><i>%d</i></small></sub></td></tr>", styleplain,
                   name.c_str(), run.sym.sym1.c_str(), subscript);
      });
    ++r;
  }
  closetable(columns);
  if (missing != 0) {
    reportbreak();
    ncnote(2, run.mdm.nunits2);
  }
}

void level3analysis(const Pass& pass) {
  const Products products = level3products(pass);
  const int columns = most(run.model.nextra3);
  heading(3, columns);
  int missing = 0;
  int r = 0;
  const ModelRows rows = modelrows();
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    const int set = rows.owner(term).set;
    const int* variables = run.model.extra3.row(set, term.place);
    const int n = run.model.nextra3.row(set)[term.place];
    Regression fits[maxextra];
    for (int i = 0; i < n; ++i) {
      fits[i] = regress(products, 3, r, variables[i] - 1, run.mdm.nunits3);
      missing += fits[i].coefficient == missingcode;
    }
    if (n > 0)
      block(variables, fits, n, columns, run.mdm.names3, [&] {
        const std::string first = eightcolumns(run.coef.betanames1[r]);
        const std::string second = eightcolumns(run.coef.betanames2[r]);
        reporttext("%s/%s, %s%d%d\n", first.c_str(), second.c_str(), run.sym.sym2.c_str(), run.coef.betasubs1[r],
                   run.coef.betasubs2[r]);
        reporthtml("<tr><td %s>%s/%s,%s<sub><small><i>%d%d</i></small></sub></td></tr>", styleplain, first.c_str(),
                   second.c_str(), run.sym.sym2.c_str(), run.coef.betasubs1[r], run.coef.betasubs2[r]);
      });
    ++r;
  }
  closetable(columns);
  if (missing != 0) {
    reportbreak();
    ncnote(3, run.mdm.nunits3);
  }
}

}  // namespace

bool haveexploratory() { return most(run.model.nextra2) > 0 || most(run.model.nextra3) > 0; }

void exploratory(Pass& pass) {
  const bool level2 = most(run.model.nextra2) > 0;
  reporttext("\f");
  if (level2) level2analysis(pass);
  if (most(run.model.nextra3) > 0) {
    if (level2) reporttext("\n\n");
    level3analysis(pass);
  }
}

}  // namespace kdr
