#include "report/modelstatistics.h"

#include <cmath>
#include <cstdlib>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/teststatistics.h"

namespace kdr {

namespace {

long long triangle(long long n) { return n * (n + 1) / 2; }

void comparison(double deviance, long long parameters) {
  const auto [statistic, df] = comparisonof(deviance, parameters);
  report2("\n Model comparison test\n", "<h5>&nbsp;&nbsp;&nbsp;&nbsp;Model comparison test</h5>\n");
  reportrule(35);
  report2(" Chi-square statistic   = %12.5f", "&nbsp;&nbsp;&nbsp;&nbsp; &chi;<sup>2</sup> statistic   = %12.5f",
          statistic);
  reportbreak();
  reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;");
  reportline(" Degrees of freedom     = %6d", df);
  report2(" P", "&nbsp;&nbsp;&nbsp;&nbsp; <i>p</i>");
  report("-value                =      ");
  const auto [below, p] = chisquaretail(df, statistic);
  if (below) {
    report(">.500");
  } else if (p < 0.001) {
    report2("<0.001", "&lt;0.001");
  } else {
    report("%5.3f", p);
  }
  reportbreak();
}

}  // namespace

long long parametercount(int phase) {
  const long long taupis = phase == 1 ? run.mdm.nunits3 : 1;
  return run.model.coef.ngamma + triangle(run.model.coef.ntaubeta) + taupis * triangle(run.model.coef.ntaupi) +
         (run.model.restrictions.fixsigma2 == 0.0 ? 1 : 0);
}

DevianceComparison comparisonof(double deviance, long long parameters) {
  return {std::fabs(deviance - run.out.deviance), wholedegrees(std::llabs(parameters - run.out.df))};
}

void modelstatistics(double loglik, int phase) {
  const long long parameters = parametercount(phase);
  const double deviance = -2.0 * loglik;
  report2("\n\n Statistics for the current model\n", "<h4>Statistics for the current model</h4>\n");
  reportrule(50);
  if (std::isfinite(deviance)) {
    reportline(" Deviance                       = %f", deviance);
  } else {
    reportline(" Deviance                       = Unable to compute");
  }
  if (run.model.autovknown != 0 && run.model.outcome.linear())
    reportline(" (a constant of the known variances is left out: compare such deviances only with each other)");
  reportline(" Number of estimated parameters = %lld", parameters);
  if (run.out.deviance != missingcode && std::isfinite(deviance)) comparison(deviance, parameters);
}

}  // namespace kdr
