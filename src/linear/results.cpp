// The results that hang on the last iteration.
#include <cmath>

#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "linear/inference.h"
#include "linear/iteration.h"
#include "report/fixedtable.h"
#include "report/matrixtables.h"
#include "report/resultsheading.h"
#include "report/stream.h"
#include "report/variancetables.h"

namespace kdr {

namespace {

void heading(const IterationState& state, int iteration) {
  if (!run.kind.linear()) {
    resultsheading(run.est.sigma2);
    return;
  }
  if (state.hetstate == 1) {
    report2("\nRESULTS FOR HETEROGENEOUS TAU(PI)\n\n", "<h2>Results for heterogeneous ");
    reporthtml("%s</h2>\n", run.sym.symvar2.c_str());
  } else {
    report2("\f******* ITERATION %d *******\n\n", "<h2>Final Results - Iteration %d</h2>", iteration);
  }
  if (!run.pass.stopflag) return;
  if (run.pass.keyboardstop) {
    reportline(" Iterations terminated prematurely from the keyboard.");
  } else if (iteration == state.limit) {
    reporthtml("<b>");
    reportline("WARNING: the iterations were stopped prior to convergence.");
    report("You may want to re-run the analysis with a higher number of iterations.");
    reporthtml("</b>");
    reportbreak();
  } else {
    reportline("Iterations stopped due to small change in likelihood function");
  }
}

// Standard errors of the variance components, as full matrices; zero when the information is not usable.
struct StandardErrors {
  bool known = false;
  Array<double> taupi, taubeta;
  double sigma2 = 0.0;
};

// 0 for a fixed element, missingcode for one whose variance could not be had.
double standarderror(const FisherWork& fisher, std::size_t element) {
  if (fisher.restriction.free[element] < 0) return 0.0;
  const double variance = fisher.invinformation[element * at(fisher.NT) + element];
  return variance > 0.0 ? std::sqrt(variance) : missingcode;
}

void spread(const FisherWork& fisher, std::size_t first, int n, Array<double>& matrix) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) matrix[i * n + j] = matrix[j * n + i] = standarderror(fisher, first++);
}

StandardErrors standarderrors(Pass& pass, IterationState& state) {
  StandardErrors errors;
  errors.taupi.reset(at(pass.p) * at(pass.p));
  errors.taubeta.reset(at(pass.b) * at(pass.b));
  if (run.iter.fishertype == 0) return errors;
  errors.known = fisherstep(pass, state.fisher, state.likelihood, true);
  if (!errors.known) {
    if (run.pass.paphase == 0) {
      report("Standard errors for ");
      if (run.iter.fixsigma2 == 0.0) report("%s, ", run.sym.symvar1.c_str());
      report("%s, and %s are not computable.", run.sym.symvar2.c_str(), run.sym.symvar3.c_str());
      reportbreak();
      reportbreak();
    }
    return errors;
  }
  const FisherWork& fisher = state.fisher;
  spread(fisher, 0, pass.p, errors.taupi);
  spread(fisher, packedsize(pass.p), pass.b, errors.taubeta);
  errors.sigma2 = std::sqrt(std::fabs(fisher.invinformation[at(fisher.NT) * at(fisher.NT) - 1]));
  return errors;
}

void sigma2lines(const StandardErrors& errors) {
  const char* symbol = run.sym.symvar1.c_str();
  if (run.iter.fixsigma2 == 0.0) {
    reportline(" %s = %12.5f", symbol, run.est.sigma2);
    if (errors.known) reportline(" Standard error of %s = %12.5f", symbol, errors.sigma2);
  } else if (!run.kind.nlrun) {
    reportbreak();
    if (run.out.autovknown != 0) {
      reportline(" %s = %s (Known)", symbol, bareword(run.mdm.names1[run.out.autovknown]).c_str());
    } else {
      reportline(" %s = %12.5f", symbol, run.iter.fixsigma2);
    }
  }
}

}  // namespace

void iterationresults(Pass& pass, IterationState& state, int iteration) {
  heading(state, iteration);
  const StandardErrors errors = standarderrors(pass, state);
  const bool shown = run.out.fulloutput || !run.pass.nlfirstpass;
  const bool tables = shown && run.pass.paphase == 0;
  const bool ordinary = state.hetstate == 2;
  if (shown) sigma2lines(errors);
  // The heterogeneous stage has no one taupi; its results follow with the mean over the level-3 units.
  if (tables && ordinary) {
    taupitable(MatrixTitle::plain, false, pass.p, run.est.taupi.data());
    if (errors.known) taupitable(MatrixTitle::standarderror, false, pass.p, errors.taupi.data());
    correlationtable(1, pass.p, run.est.taupi.data());
  }
  if (ordinary && run.pass.paphase == 0) level2reliabilities(pass, state, shown);
  if (tables) taubetatable(MatrixTitle::plain, false, pass.b, run.est.taubeta.data());
  if (!ordinary) return;
  if (tables) {
    if (errors.known) taubetatable(MatrixTitle::standarderror, false, pass.b, errors.taubeta.data());
    correlationtable(2, pass.b, run.est.taubeta.data());
  }
  if (run.pass.paphase == 0) level3reliabilities(pass, state, shown);
}

}  // namespace kdr
