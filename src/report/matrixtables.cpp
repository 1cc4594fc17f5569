#include "report/matrixtables.h"

#include <algorithm>
#include <string>
#include <vector>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/teststatistics.h"
#include "report/modelrows.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

constexpr int blockwidth = 6;

using Categories = std::vector<std::string>;

std::string bracketed(const Categories& categories, int i) {
  const std::string& category = categories[static_cast<std::size_t>(i)];
  return category.empty() ? category : "(" + category + ")";
}

void title(MatrixTitle kind, bool zero, int n, const std::string& name) {
  if (kind == MatrixTitle::plain) reportbreak();
  switch (kind) {
    case MatrixTitle::plain:
      break;
    case MatrixTitle::standarderror:
      report(n > 1 ? "Standard errors of " : "Standard error of ");
      break;
    case MatrixTitle::robusterror:
      report(n > 1 ? "Robust standard errors of " : "Robust standard error of ");
      break;
    case MatrixTitle::renewed:
      report("New ");
      break;
    case MatrixTitle::average:
      report("Average ");
      break;
    case MatrixTitle::weightedaverage:
      report("Weighted average ");
      break;
  }
  report("%s", name.c_str());
  if (zero && (kind == MatrixTitle::plain || kind == MatrixTitle::renewed))
    report2("(0)", "<sub><small><i>(0)</i></small></sub>");
  reportbreak();
}

void openmatrix() { reporthtml("<table border=0 cellpadding=0><tbody>"); }
void closematrix() { report2("\n", "</tbody></table>\n"); }

// The label of row i of taubeta in HTML. In text the columns' heads have the names.
void betalabel(int i, const std::string& category) {
  const Coefficients& coef = run.model.coef;
  reporthtml("<tr><td>%s/%s,%s<sub><small><i>%d%d%s</i></small></sub></td>",
             eightcolumns(labelof(coef.betanames1, i)).c_str(), eightcolumns(labelof(coef.betanames2, i)).c_str(),
             run.sym.sym2.c_str(), subscriptof(coef.betasubs1, i), subscriptof(coef.betasubs2, i), category.c_str());
}

// The label of row i of taupi.
void pilabel(int i, const std::string& category) {
  const std::string name = eightcolumns(labelof(run.model.coef.pinames, i));
  report2(" %s,%s%d", "<tr><td>%s,%s<sub><small><i>%d</i></small></sub>", name.c_str(), run.sym.sym1.c_str(),
          subscriptof(run.model.coef.pisubs, i));
  if (!category.empty()) report2("%s", "<sub><small><i>%s</i></small></sub>", category.c_str());
  reporthtml("</td>");
}

void betaheads(int first, int last, const Categories& categories) {
  const Coefficients& coef = run.model.coef;
  const char* wider = multinomialrun() ? "    " : "";
  reporthtml("<tr><td></td>");
  for (int j = first; j < last; ++j) {
    const std::string name = eightcolumns(labelof(coef.betanames1, j));
    report2(" %s    ", "<td>%s&nbsp;&nbsp;</td>", name.c_str());
    reporttext("%s", wider);
  }
  report2("\n", "</tr>\n<tr><td></td>");
  for (int j = first; j < last; ++j) {
    const std::string name = eightcolumns(labelof(coef.betanames2, j));
    report2(" %s,%s%d%d%s", "<td>%s,%s<sub><small><i>%d%d%s</i></small></sub></td>", name.c_str(), run.sym.sym2.c_str(),
            subscriptof(coef.betasubs1, j), subscriptof(coef.betasubs2, j), bracketed(categories, j).c_str());
  }
  report2("\n", "</tr>\n");
}

void correlationlabel(Tau which, int i, const std::string& category) {
  const Coefficients& coef = run.model.coef;
  if (which == Tau::pi) {
    const std::string name = eightcolumns(labelof(coef.pinames, i));
    report2(" %s,%s%d%s", "<tr><td>%s,%s<sub><small><i>%d%s</i></small></sub></td>", name.c_str(), run.sym.sym1.c_str(),
            subscriptof(coef.pisubs, i), category.c_str());
    return;
  }
  betalabel(i, category);
  reporttext(" %s/%s,%s%d%d%s", eightcolumns(labelof(coef.betanames1, i)).c_str(),
             eightcolumns(labelof(coef.betanames2, i)).c_str(), run.sym.sym2.c_str(), subscriptof(coef.betasubs1, i),
             subscriptof(coef.betasubs2, i), category.c_str());
}

void taupitable(MatrixTitle kind, bool zero, int n, const double* matrix) {
  const Categories categories = randomcategories(Tau::pi, n);
  title(kind, zero, n, run.sym.symvar2);
  openmatrix();
  for (int i = 0; i < n; ++i) {
    pilabel(i, bracketed(categories, i));
    for (int j = 0; j < n; ++j)
      report2(" %s ", "<td align=right>&nbsp;&nbsp;%s</td>", fixedpoint(matrix[i * n + j], 12, 5).c_str());
    report2("\n", "</tr>\n");
  }
  closematrix();
}

void taubetatable(MatrixTitle kind, bool zero, int n, const double* matrix) {
  const Categories categories = randomcategories(Tau::beta, n);
  const char* wider = multinomialrun() ? "   " : "";
  for (int first = 0; first < n; first += blockwidth) {
    const int last = std::min(n, first + blockwidth);
    title(kind, zero, n, run.sym.symvar3);
    openmatrix();
    betaheads(first, last, categories);
    for (int i = 0; i < n; ++i) {
      betalabel(i, bracketed(categories, i));
      for (int j = first; j < last; ++j) {
        report2("%s  ", "<td align=right>&nbsp;&nbsp;%s</td>", fixedpoint(matrix[i * n + j], 11, 5).c_str());
        reporttext("%s", wider);
      }
      report2("\n", "</tr>\n");
    }
    closematrix();
  }
}

}  // namespace

void tautable(Tau which, MatrixTitle kind, bool zero, int n, const double* matrix) {
  if (n == 0) return;
  which == Tau::pi ? taupitable(kind, zero, n, matrix) : taubetatable(kind, zero, n, matrix);
}

void correlationtable(Tau which, int n, const double* matrix) {
  if (n <= 1) return;
  const Categories categories = randomcategories(which, n);
  report("%s (as correlations)", (which == Tau::pi ? run.sym.symvar2 : run.sym.symvar3).c_str());
  reportbreak();
  openmatrix();
  for (int i = 0; i < n; ++i) {
    correlationlabel(which, i, bracketed(categories, i));
    for (int j = 0; j < n; ++j) {
      report2(" %s", "<td>&nbsp;%s</td>", fixedpoint(correlationof(matrix, n, i, j), 6, 3).c_str());
    }
    report2("\n", "</tr>\n");
  }
  closematrix();
}

}  // namespace kdr
