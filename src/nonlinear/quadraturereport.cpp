#include "nonlinear/quadraturereport.h"

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/matrixtables.h"
#include "report/stream.h"

namespace kdr {

namespace {

// The estimates of a matrix, its standard errors or why there are none.
void tautables(Tau which, int n, const Array<double>& tau, const Array<double>& se, bool usable) {
  tautable(which, MatrixTitle::plain, false, n, tau.data());
  if (usable) {
    tautable(which, MatrixTitle::standarderror, false, n, se.data());
  } else {
    reportline("The standard errors of Tau(%s) cannot be computed.  This is", which == Tau::pi ? "pi" : "beta");
    reportline("probably due to one or more of the random effects having a zero variance.");
  }
  correlationtable(which, n, tau.data());
}

}  // namespace

void quadraturereport(const QuadratureResult& result, const FixedDegrees& degrees) {
  if (!result.finished) {
    if (result.failure == QuadratureFailure::nodes) reportbreak();
    reportline("%s", failureline(result.failure));
    for (const std::string& warning : result.warnings) reportline("%s", warning.c_str());
    return;
  }
  const Parameters& estimates = result.parameters;
  report2("\fRESULTS FOR UNIT-SPECIFIC MODEL, ADAPTIVE GAUSSIAN QUADRATURE\n    Iteration %d\n\n",
          "<h2>Results For Unit-Specific Model, Adaptive Gaussian Quadrature<br><smaller>iteration %d</smaller></h2>",
          result.iteration);
  for (const std::string& warning : result.warnings) reportline("%s", warning.c_str());
  tautables(Tau::pi, estimates.q, estimates.taupi, result.taupise, result.taupiseusable);
  tautables(Tau::beta, estimates.r, estimates.taubeta, result.taubetase, result.taubetaseusable);

  const Array<double> variances = variancesof(result.vgamma, estimates.g);
  const FixedEffects effects{estimates.gamma, variances, degrees};
  fixedtable(effects, TableKind::quadrature, PassKind::pql);
  ratiotable(effects, TableKind::quadrature);
  if (run.model.nhypotheses) hypothesistest(estimates.g, estimates.gamma.data(), result.vgamma.data(), estimates.g);
}

}  // namespace kdr
