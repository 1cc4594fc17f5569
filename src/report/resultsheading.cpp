#include "report/resultsheading.h"

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/stream.h"

namespace kdr {

void resultsheading(PassKind kind, int macro, double sigma2) {
  rewindreport();
  switch (kind) {
    case PassKind::linear:
    case PassKind::laplace6:
    case PassKind::quadrature:
      break;  // these have headings of their own
    case PassKind::identity:
      if (!run.out.fulloutput) break;
      report2("\fRESULTS FOR LINEAR MODEL WITH THE IDENTITY LINK FUNCTION\n\n",
              "<h2>Final Results for Linear Model with the Identity Link Function</h2>");
      reportline(" %s = %s", run.sym.symvar1.c_str(), fixedpoint(sigma2, 12, 5).c_str());
      break;
    case PassKind::pql:
      report2("\fRESULTS FOR NON-LINEAR MODEL WITH THE LOG", "<h2>Results for Non-linear Model with the Log");
      if (run.model.outcome.link() == Link::logit) report2("IT", "it");
      report2(" LINK FUNCTION:\n  ", " Link Function<br><small>");
      report("Unit-Specific Model, PQL Estimation - (macro iteration %d)", macro);
      report2("\n", "</small></h2>\n");
      break;
    case PassKind::categories:
      report2("\fRESULTS FOR %s", "<h2>Final Results for %s",
              run.model.outcome.ordinal() ? (run.report.html ? "Ordinal" : "ORDINAL")
                                          : (run.report.html ? "Multinomial" : "MULTINOMIAL"));
      report2(" ITERATION %d\n\n", " Iteration %d</h2>", macro);
      break;
    case PassKind::populationaverage:
      report2("\n\nRESULTS FOR POPULATION-AVERAGE MODEL\n\n", "<h2>Results for Population-Average Model</h2>\n");
      break;
  }
}

}  // namespace kdr
