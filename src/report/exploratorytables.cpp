#include "report/exploratorytables.h"

#include <algorithm>
#include <string>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/exploratory.h"
#include "report/stream.h"

namespace kdr {

namespace {

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
void blockrow(Row row, const ExploratoryFit* fits, int n) {
  static constexpr const char* textwords[] = {"    Coefficient         ", "    Standard Error      ",
                                              "    t value             "};
  static constexpr const char* htmlwords[] = {"Coefficient", "Standard Error", "t-value"};
  reporttext("%s", textwords[static_cast<int>(row)]);
  reporthtml("<tr><td %s>%s</td>", styleplain, htmlwords[static_cast<int>(row)]);
  for (int i = 0; i < n; ++i) {
    const bool nc = !fits[i].coefficient;
    const double value = row == Row::coefficient ? fits[i].coefficient.value_or(absent)
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
void block(const int* variables, const ExploratoryFit* fits, int n, int columns, const Array<Name>& table,
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
  if (units <= fewexploratoryunits) {
    reportline("The coefficients of NC cannot be computed: there are too few level-%d units.", level);
  } else {
    reportline("For variables with coefficients of NC, there is no variation at level %d.", level);
  }
}

// The note on coefficients that cannot be computed, if there are any.
void closelevel(const std::vector<ExploratoryBlock>& blocks, int level, int columns, int units) {
  closetable(columns);
  for (const ExploratoryBlock& block : blocks)
    for (const ExploratoryFit& fit : block.fits)
      if (!fit.coefficient) {
        reportbreak();
        return ncnote(level, units);
      }
}

void level2tables(const std::vector<ExploratoryBlock>& blocks) {
  constexpr int perblock = 6;
  const int columns = std::min(perblock, mostcandidates(run.model.nextra2));
  heading(2, columns);
  for (const ExploratoryBlock& candidates : blocks) {
    const int n = static_cast<int>(candidates.fits.size());
    for (int from = 0; from < n; from += perblock)
      block(candidates.variables.data() + from, candidates.fits.data() + from, std::min(perblock, n - from), columns,
            run.mdm.names2, [&] {
              const std::string name = eightcolumns(run.model.coef.pinames[candidates.row]);
              const int subscript = run.model.coef.pisubs[candidates.row];
              reporttext(" %s, %s%1d\n", name.c_str(), run.sym.sym1.c_str(), subscript);
              reporthtml("<tr><td align=right %s>%s,%s<sub><small><i>%d</i></small></sub></td></tr>", styleplain,
                         name.c_str(), run.sym.sym1.c_str(), subscript);
            });
  }
  closelevel(blocks, 2, columns, run.mdm.nunits2);
}

void level3tables(const std::vector<ExploratoryBlock>& blocks) {
  const int columns = mostcandidates(run.model.nextra3);
  heading(3, columns);
  for (const ExploratoryBlock& candidates : blocks) {
    if (candidates.fits.empty()) continue;
    const int row = candidates.row;
    block(candidates.variables.data(), candidates.fits.data(), static_cast<int>(candidates.fits.size()), columns,
          run.mdm.names3, [&] {
            const std::string first = eightcolumns(run.model.coef.betanames1[row]);
            const std::string second = eightcolumns(run.model.coef.betanames2[row]);
            reporttext("%s/%s, %s%d%d\n", first.c_str(), second.c_str(), run.sym.sym2.c_str(),
                       run.model.coef.betasubs1[row], run.model.coef.betasubs2[row]);
            reporthtml("<tr><td %s>%s/%s,%s<sub><small><i>%d%d</i></small></sub></td></tr>", styleplain, first.c_str(),
                       second.c_str(), run.sym.sym2.c_str(), run.model.coef.betasubs1[row],
                       run.model.coef.betasubs2[row]);
          });
  }
  closelevel(blocks, 3, columns, run.mdm.nunits3);
}

}  // namespace

void exploratorytables(const ExploratoryAnalysis& analysis) {
  reporttext("\f");
  if (!analysis.level2.empty()) level2tables(analysis.level2);
  if (analysis.level3.empty()) return;
  if (!analysis.level2.empty()) reporttext("\n\n");
  level3tables(analysis.level3);
}

}  // namespace kdr
