#include "report/passtables.h"

#include "core/formatted.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/convergence.h"
#include "report/fixedtable.h"
#include "report/hypotheses.h"
#include "report/intervaltables.h"
#include "report/matrixtables.h"
#include "report/modelstatistics.h"
#include "report/resultsheading.h"
#include "report/stream.h"
#include "report/variancetables.h"

namespace kdr {

namespace {

bool shown(const PassResults& results) { return run.out.fulloutput || results.kind != PassKind::identity; }

void heading(const PassResults& results) {
  if (results.kind != PassKind::linear) {
    resultsheading(results.kind, results.macro, results.est.sigma2);
    return;
  }
  if (results.heterogeneous) {
    report2("\nRESULTS FOR HETEROGENEOUS TAU(PI)\n\n", "<h2>Results for heterogeneous ");
    reporthtml("%s</h2>\n", run.sym.symvar2.c_str());
  } else {
    report2("\f******* ITERATION %d *******\n\n", "<h2>Final Results - Iteration %d</h2>", results.iteration);
  }
  if (results.stopped) endingwords(results);
}

void noerrors(const PassResults& results) {
  if (!results.errors.asked || results.errors.known || results.tausstand()) return;
  report("Standard errors for ");
  if (results.fixsigma2 == 0.0) report("%s, ", run.sym.symvar1.c_str());
  if (run.model.coef.ntaupi == 0 || run.model.coef.ntaubeta == 0) {
    const bool pi = run.model.coef.ntaupi > 0;
    report("%s are not computable.", (pi ? run.sym.symvar2 : run.sym.symvar3).c_str());
  } else {
    report("%s, and %s are not computable.", run.sym.symvar2.c_str(), run.sym.symvar3.c_str());
  }
  reportbreak();
  reportbreak();
}

void sigma2lines(const PassResults& results) {
  const char* symbol = run.sym.symvar1.c_str();
  if (results.fixsigma2 == 0.0) {
    reportline(" %s = %12.5f", symbol, results.est.sigma2);
    if (results.errors.known) reportline(" Standard error of %s = %12.5f", symbol, results.errors.sigma2);
  } else if (!run.model.outcome.single()) {
    reportbreak();
    if (run.model.autovknown != 0) {
      reportline(" %s = %s (Known)", symbol, bareword(run.mdm.names1[run.model.autovknown]).c_str());
    } else {
      reportline(" %s = %12.5f", symbol, results.fixsigma2);
    }
  }
}

void partnote(const char* what, int used, int total) {
  if (used != total) partialdatanote(what, used, total);
}

void reliabilitytables(Tau which, const PassResults& results) {
  const Reliabilities& rel = results.reliabilities;
  const Array<double>& values = rel.of(which);
  const int used = rel.units(which);
  if (used < 1) {
    if (which == Tau::pi) {
      reportline(" The %s reliabilities cannot be computed", run.sym.symvar2.c_str());
    } else {
      reportline(" The %s(beta) reliabilities cannot be computed", run.report.html ? "&tau;" : "tau");
    }
    return;
  }
  reliabilitytable(which, static_cast<int>(values.size()), values.data());
  partnote("reliability estimates", used, ofthe(which, run.mdm.nunits2, run.mdm.nunits3));
}

// A tau with all that belongs to it. The heterogeneous stage has no one tau(pi); its results follow with the mean over
// the level-3 units.
void tautables(Tau which, const PassResults& results) {
  const int n = run.model.coef.order(which);
  const double* tau = results.est.tau(which).data();
  if (n == 0 || (which == Tau::pi && results.heterogeneous)) return;
  tautable(which, MatrixTitle::plain, false, n, tau);
  if (results.heterogeneous) return;
  if (results.errors.known) tautable(which, MatrixTitle::standarderror, false, n, results.errors.of(which).data());
  correlationtable(which, n, tau);
  reliabilitytables(which, results);
}

// A table of the fixed effects and its ratios.
void effectstables(const PassResults& results, TableKind kind, const EffectTable& effects) {
  fixedtable(effects.rows, kind, results.kind);
  if (results.kind != PassKind::identity) ratiotable(effects.rows);
}

// Where degrees of freedom with a fraction come from.
void degreesnote(DegreesMethod method) {
  if (method == DegreesMethod::counts) return;
  sentences(method == DegreesMethod::satterthwaite
                ? std::string("The degrees of freedom are Satterthwaite's, by the ") +
                      (run.control.ddfobserved ? "observed" : "expected") + " information."
                : "Standard errors and degrees of freedom by Kenward and Roger (1997).");
}

void fewunitsnote() {
  report(
      "\nThe robust standard errors are appropriate for datasets having a moderate to\n"
      "large number of level %d units.  These data do not meet this criterion.\n",
      run.mdm.twolevel() ? 2 : 3);
}

void norobust() { report("\nThe robust standard errors cannot be computed for this model.\n"); }

void variancetesttables(const PassResults& results) {
  const VarianceTests& tests = results.tests;
  const Estimates& est = results.est;
  variancetable(Tau::pi, est.taupi, tests.level2, est.sigma2);
  if (run.model.coef.ntaupi > 0) partnote("chi-square statistics", tests.units2, run.mdm.nunits2);
  variancetable(Tau::beta, est.taubeta, tests.level3, est.sigma2);
  if (run.model.coef.ntaubeta > 0) partnote("chi-square statistics", tests.units3, run.mdm.nunits3);
}

}  // namespace

void sectionheading(const char* text, const char* html, int rule) {
  reporttext("\n %s\n", text);
  reporthtml("<h3>%s</h3>\n", html);
  reportrule(rule);
}

void reportwarning(const std::string& lines) {
  reporthtml("<b>");
  std::size_t from = 0;
  for (std::size_t end; (end = lines.find('\n', from)) != std::string::npos; from = end + 1)
    reportline("%s", lines.substr(from, end - from).c_str());
  report("%s", lines.substr(from).c_str());
  reporthtml("</b>");
  reportbreak();
}

void deletionnote() {
  if (run.records() == run.mdm.numl1rec) return;
  reportbreak();
  reportline("Run-time deletion has reduced the number of level-1 records to %d", run.records());
  reportbreak();
}

void leastsquarestables(const LeastSquaresResults& results) {
  sectionheading("Least Squares Estimates", "Least Squares Estimates", 23);
  report("\n %s = %12.5f\n\n", run.sym.symvar1.c_str(), results.sigma2);
  fixedtable(results.effects.rows, TableKind::leastsquares, PassKind::linear);
  if (results.robust.empty()) {
    norobust();
  } else {
    fixedtable(results.robusteffects.rows, TableKind::leastsquaresrobust, PassKind::linear);
    if (results.fewunits) fewunitsnote();
  }
  if (results.loglik) {
    reportline(" The least-squares likelihood value = %E", *results.loglik);
    reportline(" Deviance = %12.5f", -2.0 * *results.loglik);
  } else {
    reportline(" The least-squares likelihood cannot be computed: the model leaves no residual.");
  }
  reportline(" Number of estimated parameters = %4d", results.parameters);
}

void endingwords(const PassResults& results) {
  switch (results.ending) {
    case Ending::keyboard:
      reportline(" Iterations terminated prematurely from the keyboard.");
      break;
    case Ending::limit:
      reportwarning(
          "WARNING: the iterations were stopped prior to convergence.\n"
          "You may want to re-run the analysis with a higher number of iterations.");
      break;
    case Ending::lost:
      reportwarning(
          "WARNING: the iterations stopped at the edge of the variance components, but the search for the maximum\n"
          "there has failed: estimates and deviance are not those of the maximum.");
      break;
    case Ending::nomaximum:  // of engines, whose warnings tell
      break;
    case Ending::converged:
      reportline("Iterations stopped due to small change in likelihood function");
      if (const std::string words = unsettledwords(results); !words.empty()) reportwarning(words);
      break;
  }
}

void iterationtables(const PassResults& results) {
  heading(results);
  for (const std::string& warning : results.warnings) reportline("%s", warning.c_str());
  if (shown(results)) {
    noerrors(results);
    sigma2lines(results);
    if (!results.tausstand()) {
      tautables(Tau::pi, results);
      tautables(Tau::beta, results);
    }
  }
  if (shown(results) && (run.out.fulloutput || results.stopped))
    reportline("The value of the %slog-likelihood function at iteration %d = %E",
               results.restricted ? "restricted " : "", results.iteration, results.loglik.value_or(absent));
}

void fixedeffectstables(const PassResults& results, TableKind kind) {
  effectstables(results, kind, results.effects);
  degreesnote(results.degrees.method);
  hypothesistests(results.effects);
}

void robusttables(const PassResults& results) {
  if (results.robust.empty()) return norobust();
  effectstables(results, TableKind::robust, results.robusteffects);
  if (results.robustdegrees.method != DegreesMethod::counts)
    sentences("The robust standard errors are bias-reduced (CR2), their degrees of freedom Satterthwaite's.");
  if (results.fewunits) fewunitsnote();
  hypothesistests(results.robusteffects);
}

void passtables(const PassResults& results) {
  iterationtables(results);
  if (shown(results)) fixedeffectstables(results);
  if (results.kind == PassKind::identity) return;
  robusttables(results);
  if (!results.tausstand()) variancetesttables(results);
  profiletable(results.profile);
  sharestable(results.shares);
  for (const std::string& note : results.notes)
    if (note.starts_with("PROFILE:") || note.starts_with("SHARES:") || note.starts_with("NULLMODEL:")) sentences(note);
}

}  // namespace kdr
