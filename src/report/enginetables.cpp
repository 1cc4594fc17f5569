#include "report/enginetables.h"

#include <algorithm>
#include <cmath>

#include "core/formatted.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/matrixtables.h"
#include "report/passtables.h"
#include "report/variancetables.h"

namespace kdr {

namespace {

void enginereliabilities(Tau which, const Reliabilities& reliabilities) {
  const Array<double>& values = reliabilities.of(which);
  const int used = reliabilities.units(which), total = ofthe(which, run.mdm.nunits2, run.mdm.nunits3);
  if (run.model.coef.order(which) == 0) return;
  if (used == 0) {
    report("\n The Tau(%s) reliabilities cannot be computed\n", nameof(which));
    return;
  }
  reliabilitytable(which, static_cast<int>(values.size()), values.data());
  if (used != total) partialdatanote("reliability estimates", used, total);
}

// The estimates of a matrix, its standard errors or why there are none, its correlations.
void taublocks(Tau which, const PassResults& results) {
  const int n = run.model.coef.order(which);
  const double* tau = results.est.tau(which).data();
  const Array<double>& errors = results.errors.of(which);
  if (n == 0) return;
  tautable(which, MatrixTitle::plain, false, n, tau);
  if (!errors.empty()) {
    tautable(which, results.weighted ? MatrixTitle::robusterror : MatrixTitle::standarderror, false, n, errors.data());
    if (const Array<double>& robust = results.robusterrors.of(which); !results.weighted && !robust.empty())
      tautable(which, MatrixTitle::robusterror, false, n, robust.data());
    const std::vector<bool>& edge = results.errors.edges(which);
    if (std::find(edge.begin(), edge.end(), true) != edge.end())
      reportline("NC: at the edge, a variance of 0 or a covariance with it. It has no standard error.");
  } else {
    reportline("The standard errors of Tau(%s) cannot be computed.  This is", nameof(which));
    reportline("probably due to one or more of the random effects having a zero variance.");
  }
  correlationtable(which, n, tau);
}

// The fixed effects with their standard errors and, of an engine that has a sandwich, those of it: in a weighted run
// these alone.
void effects(const PassResults& results, TableKind kind) {
  fixedeffectstables(results, results.weighted ? TableKind::robust : kind);
  if (!results.weighted && results.robusterrors.asked) robusttables(results);
}

}  // namespace

void laplacetables(const PassResults& results, bool withlikelihood) {
  rewindreport();
  report2("\fRESULTS FOR NON-LINEAR MODEL WITH THE LOGIT LINK FUNCTION: Laplace Model\n(macro iteration %d)\n",
          "<h2>Results for Unit-Specific Model, Laplace6 Estimation<br><small>Iteration %d</small></h2>",
          results.iteration);
  for (const std::string& warning : results.warnings) reportline("%s", warning.c_str());
  for (const Tau which : {Tau::pi, Tau::beta}) {
    taublocks(which, results);
    enginereliabilities(which, results.reliabilities);
  }
  effects(results, TableKind::laplace);
  if (withlikelihood)
    reportline("The likelihood at Laplace iteration %d is %E", results.iteration + 1, results.loglik.value_or(absent));
}

void laplacefailed(const std::vector<std::string>& warnings) {
  rewindreport();
  if (!warnings.empty()) {
    reportline("Laplace-6 has no results.");
    for (const std::string& warning : warnings) reportline("%s", warning.c_str());
    return;
  }
  reportline("Fisher scoring is unable to compute a maximum likehihood estimate within");
  reportline("the parameter space.  Unable to produce Laplace results.");
  reportbreak();
}

std::string methodwords(PassKind kind, int points) {
  if (kind == PassKind::laplace6) return "Laplace-6";
  if (kind != PassKind::quadrature) return "quasi-likelihood (PQL)";
  if (points == 1) return "the first-order Laplace approximation";
  return points == 0 ? "adaptive quadrature" : formatted("adaptive quadrature (%d points for each effect)", points);
}

std::string seriesmethod(PassKind kind) {
  return methodwords(kind, run.control.agqpoints == 1 && !run.control.agqauto ? 1 : 0);
}

std::string pointsline(const QuadraturePoints& made) {
  if (made.points == 1) return "One point: the first-order Laplace approximation.";
  std::string words = formatted("%d points for each effect", made.points);
  if (made.agrees)
    words += formatted("; with %d the log-likelihood differs by %.4f, a standard error by %.2f%% at most", made.next,
                       std::fabs(made.change), 100.0 * made.errorchange);
  return words + ".";
}

void quadraturetables(const PassResults& results) {
  report2("\fRESULTS FOR UNIT-SPECIFIC MODEL, ADAPTIVE GAUSSIAN QUADRATURE\n    Iteration %d\n\n",
          "<h2>Results For Unit-Specific Model, Adaptive Gaussian Quadrature<br><smaller>iteration %d</smaller></h2>",
          results.iteration);
  for (const std::string& warning : results.warnings) reportline("%s", warning.c_str());
  if (results.quadrature.points != 0) reportline("%s", pointsline(results.quadrature).c_str());
  for (const std::string& note : results.notes) reportline("%s", note.c_str());
  for (const Tau which : {Tau::pi, Tau::beta}) {
    taublocks(which, results);
    if (results.quadrature.points != 0) enginereliabilities(which, results.reliabilities);
  }
  effects(results, TableKind::quadrature);
}

}  // namespace kdr
