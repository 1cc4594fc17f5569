#include "report/modelstatistics.h"

#include <cmath>
#include <string>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/modelstatistics.h"
#include "report/stream.h"

namespace kdr {

void sentences(const std::string& text) {
  constexpr std::size_t width = 76;
  for (std::size_t from = 0; from < text.size();) {
    std::size_t end = text.size() - from <= width ? text.size() : text.rfind(' ', from + width);
    if (end == std::string::npos || end <= from) end = text.size();
    reportline(" %s", text.substr(from, end - from).c_str());
    from = end + 1;
  }
}

namespace {

void comparison(double deviance, long long parameters, bool pseudo) {
  DevianceComparison made =
      comparisonof(deviance, parameters, {*run.out.deviance, run.out.df}, run.model, run.mdm.twolevel());
  if (pseudo) made.impossible = pseudocomparison;
  const auto& [statistic, df, df2, p] = made.chisquare;
  report2("\n Model comparison test\n", "<h5>&nbsp;&nbsp;&nbsp;&nbsp;Model comparison test</h5>\n");
  reportrule(35);
  report2(" Chi-square statistic   = %12.5f", "&nbsp;&nbsp;&nbsp;&nbsp; &chi;<sup>2</sup> statistic   = %12.5f",
          statistic);
  reportbreak();
  reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;");
  reportline(" Degrees of freedom     = %6d", df);
  report2(" P", "&nbsp;&nbsp;&nbsp;&nbsp; <i>p</i>");
  report("-value                =      ");
  report("%s", made.impossible.empty() ? pvalue(p, 3, true).c_str() : "Unable to compute");
  reportbreak();
  if (!made.impossible.empty()) return sentences("The models cannot be compared. " + made.impossible);
  if (!made.mixture) return;
  sentences(
      "If the models differ by one random effect, this p-value is conservative: the variance is 0 in the smaller one. "
      "By the mixture of chi-squares with " +
      std::to_string(df - 1) + " and " + std::to_string(df) + " degrees of freedom it is " +
      pvalue(made.mixturep, 3, true) + ".");
}

}  // namespace

void modelstatistics(const PassResults& results) {
  const long long parameters = results.parameters;
  const double deviance = -2.0 * results.loglik.value_or(absent);
  report2("\n\n Statistics for the current model\n", "<h4>Statistics for the current model</h4>\n");
  reportrule(50);
  if (std::isfinite(deviance)) {
    reportline(results.restricted ? " Deviance (restricted)          = %f" : " Deviance                       = %f",
               deviance);
  } else {
    reportline(" Deviance                       = Unable to compute");
  }
  if (run.model.autovknown != 0 && run.model.outcome.linear())
    reportline(" (a constant of the known variances is left out: compare such deviances only with each other)");
  if (results.weighted) reportline(" (of a weighted pseudo-likelihood: its differences are no chi-square statistics)");
  reportline(" Number of estimated parameters = %lld", parameters);
  if (!run.out.deviance || !std::isfinite(deviance)) return;
  comparison(deviance, parameters, results.weighted);
  if (results.restricted) sentences(samefixedeffects);
}

}  // namespace kdr
