#include "linear/estimate.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/decompositions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "linear/datapass.h"
#include "linear/exploratory.h"
#include "linear/fixtau.h"
#include "linear/graphdata.h"
#include "linear/heterogeneous.h"
#include "linear/inference.h"
#include "linear/iteration.h"
#include "linear/residualfiles.h"
#include "linear/startingvalues.h"
#include "linear/startvaluesfile.h"
#include "linear/variancefiles.h"
#include "linear/weightedcovariance.h"
#include "report/degreesoffreedom.h"
#include "report/fixedtable.h"
#include "report/matrixtables.h"
#include "report/modelstatistics.h"

namespace kdr {

namespace {

// A section heading: text over a rule of its length, or <h3>.
void sectionheading(const char* text, const char* html, int rule) {
  reporttext("\n %s\n", text);
  reporthtml("<h3>%s</h3>\n", html);
  reportrule(rule);
}

// Phase 1: dimensions, arrays.
void beginpass(Pass& pass, FixedDegrees& degrees) {
  run.pass.stopflag = run.pass.keyboardstop = 0;
  makedesign(pass);
  run.est.gammahat.reset(at(pass.g));
  run.est.taupi.reset(square(pass.p));
  run.est.taubeta.reset(square(pass.b));
  run.est.vgamma.reset(square(pass.g));
  const std::size_t units = at(run.mdm.nunits3);
  pass.dinv.reset(units * square(pass.b));
  pass.vstar.reset(units * at(pass.b));
  pass.vlsq.reset(units * at(pass.b));
  degreesoffreedom(degrees);
}

// True when some fixed effect is a combination of the others to within rounding: the gram matrix is no covariance, or,
// brought to a unit diagonal, so ill-conditioned that its inverse would not have four digits left.
bool collinear(const Array<double>& gram, int g) {
  constexpr double worstcondition = 1.0e12;
  double condition = 0.0;
  if (isbadcov(g, gram.data(), g, &condition)) return true;
  Array<double> scaled(square(g));
  for (int i = 0; i < g; ++i)
    for (int j = 0; j < g; ++j) scaled[i * g + j] = gram[i * g + j] / std::sqrt(gram[i * g + i] * gram[j * g + j]);
  return !ispositivedefinite(g, scaled.data(), g, &condition) || condition > worstcondition;
}

// Phase 3: the least-squares estimate into gammahat, with its report.
void leastsquares(Pass& pass, FixedDegrees& degrees) {
  const int g = pass.g;
  if (pass.totalYY == 0.0) {
    report("The outcome variable is all zeros!");
    std::printf("The outcome variable is all zeros!\n");
    stoprun(100);
  }
  Array<double> work(packedsize(g) + 3);
  if (collinear(pass.gramMM, g) || syminverse(g, pass.gramMM.data(), g, run.est.vgamma.data(), g, work.data()) != 0)
    fail(11);
  mulAB(run.est.gammahat.data(), run.est.vgamma.data(), pass.gramMY.data(), g, 1, g);
  degreesoffreedom(degrees);

  Array<double> MMg(at(g));
  mulAB(MMg.data(), pass.gramMM.data(), run.est.gammahat.data(), g, 1, g);
  double rss = pass.totalYY;
  for (int i = 0; i < g; ++i) rss -= run.est.gammahat[i] * MMg[i];
  const double n = run.mdm.nunits1;
  const double s = std::max(rss, 0.0) / n;
  if (!run.out.fulloutput) return;

  constexpr double twopi = 6.283185307;
  const double loglik = -(n + n * std::log(twopi * s)) / 2.0;
  sectionheading("Least Squares Estimates", "Least Squares Estimates", 23);
  report("\n %s = %12.5f\n\n", run.sym.symvar1.c_str(), s);
  fixedtable(degrees, TableKind::leastsquares, run.est.vgamma.data(), run.est.gammahat.data(), g, s);
  robustcovariance(pass, degrees, true);
  if (s > 0.0) {
    reportline(" The least-squares likelihood value = %E", loglik);
    reportline(" Deviance = %12.5f", -2.0 * loglik);
  } else {
    reportline(" The least-squares likelihood cannot be computed: the model leaves no residual.");
  }
  reportline(" Number of estimated parameters = %4d", g + 1);
}

// A tau that the iterations cannot start from is repaired, and shown again.
void settlestart(Array<double>& t, int n, const Array<double>& moments, int& code, TauStage stage) {
  const bool always = code == 5;
  if (always) code = 0;
  if (usablecovariance(t.data(), n) && !always) return;
  fixtau(t.data(), n, moments, code, run.est.sigma2, stage);
  if (!run.out.fulloutput) return;
  if (stage == TauStage::pi) {
    taupitable(MatrixTitle::renewed, true, n, t.data());
  } else {
    taubetatable(MatrixTitle::renewed, true, n, t.data());
  }
}

// Phase 5: starting values, from the file of STARTVALS: when there is one, else from moments.
void startingvalues(Pass& pass) {
  StartMoments moments{Array<double>(square(pass.p)), Array<double>(square(pass.b))};
  const bool fromfile = havestartvalues();
  if (fromfile) {
    readstartvalues();
    if (run.iter.fixsigma2 != 0.0) run.est.sigma2 = run.iter.fixsigma2;
    pass.nusable1 = run.mdm.nunits1;
    pass.nusable2 = run.mdm.nunits2;
    pass.nusable3 = run.mdm.nunits3;
  } else {
    leastsquarestart(pass, moments);
  }
  applytaupi(run.est.taupi.data());
  if (fromfile) applytaubeta(run.est.taubeta.data());
  if (!fromfile)
    report2(" For starting values, data from %d level-1 and %d level-2 records were used\n",
            "For starting values, data from %d level-1 and %d level-2 records were used<br>\n", pass.nusable1,
            pass.nusable2);
  if (run.out.fulloutput) {
    sectionheading("STARTING VALUES", "Starting Values", 15);
    report(" %s(0) = %12.5f\n\n", run.sym.symvar1.c_str(), run.est.sigma2);
    taupitable(MatrixTitle::plain, true, pass.p, run.est.taupi.data());
  }
  settlestart(run.est.taupi, pass.p, moments.taupi, run.iter.fixtau2, TauStage::pi);
  if (!fromfile) starttaubeta(pass, moments);
  if (run.out.fulloutput) taubetatable(MatrixTitle::plain, true, pass.b, run.est.taubeta.data());
  settlestart(run.est.taubeta, pass.b, moments.taubeta, run.iter.fixtau3, TauStage::beta);
  if (run.iter.hetit != 0) checkheterogeneous(pass);
}

// Phase 6: what both stages of iteration share.
void beginiterations(Pass& pass, IterationState& state) {
  std::fflush(run.report.stream);
  if (!reportisstdout()) {
    std::printf("Starting values computed.  Iterations begun.\n");
    std::printf("Should you wish to terminate the iterations prior to convergence, enter cntl-c\n");
    std::fflush(stdout);
  }
  state.likelihood = {missingcode, missingcode};
  pass.likeconstant = run.mdm.nunits1 * (0.5 * std::log(6.2831853));
  startiterations(pass, state);
}

// One stage of at most `limit` iterations. The interrupt key is held for the time of the iterations alone.
void iteratestage(Pass& pass, IterationState& state, int hetstate, int limit) {
  state.hetstate = hetstate;
  state.limit = limit;
  holdinterrupts();
  iterate(pass, state);
  releaseinterrupts();
}

// Phase 6 with a taupi for every level-3 unit: HETIT: iterations and their results.
void heterogeneousstage(Pass& pass, IterationState& state, const FixedDegrees& degrees) {
  startheterogeneous(state);
  iteratestage(pass, state, 1, run.iter.hetit);
  heterogeneousresults(pass, state, degrees);
  state.hettaupi = Array<double>();
  run.pass.stopflag = 0;
}

// Phase 7: results of the ordinary stage.
void stageresults(Pass& pass, IterationState& state, const FixedDegrees& degrees) {
  const Estimates& est = run.est;
  if (run.kind.weighted) weightedcovariance(pass);
  reportfixedeffects(pass, degrees, run.kind.weighted);
  robustcovariance(pass, degrees, false);
  if (run.out.printvc != 0) writegammafile(robustgammafile, est.vgammarobust, est.sigma2);
  if (!run.files.startvals.empty()) writestartvalues();
  if (run.out.printvc != 0) {
    writetaufile(taufile, pass, state.fisher, true);
    writegammafile(gammafile, est.vgamma, est.sigma2);
  }
  VarianceTests tests;
  variancetests(pass, tests);
  variancetesttables(pass, tests);
}

// A run without any iteration has no likelihood.
void closingstatistics(const IterationState& state) {
  if (state.likelihood.current == missingcode) {
    reportline("No iterations were asked for, so there is no likelihood to report.");
  } else {
    modelstatistics(state.likelihood.current, state.hetstate);
  }
}

// Residual files and graph data file. A run without an ordinary stage has no variance tests, which leave the
// least-squares residuals of level 3; a run without any iteration has no residuals.
void resultfiles(Pass& pass, const IterationState& state, bool ordinary) {
  const bool residuals = run.out.resfil1 || run.out.resfil2 || run.out.resfil3;
  if (!residuals && !run.out.graph) return;
  if (state.likelihood.current == missingcode) {
    reportline("No iterations were asked for, so there are no residual or graph files.");
    return;
  }
  if (residuals && !ordinary) {
    VarianceTests unused;
    variancetests(pass, unused);
  }
  if (residuals) writeresidualfiles(pass);
  if (run.out.graph) writegraphdata(pass);
}

}  // namespace

// The phases of a pass. A linear run makes one pass. A non-linear run will go round phases 1 to 8 once for each macro
// iteration: with working data in the place of the outcome (phase 2), the previous estimates as least-squares and
// starting values (phases 3 and 5), the iterations as micro iterations (phase 6) and the report wound back before its
// results (phase 7); its other engines follow the last pass. A series writes its records to the result store in phase 7
// and pools them in phase 8.
void estimate() {
  // Phase 0, once for a call: what outlives a pass.
  // Phase 1: dimensions, design, arrays.
  Pass pass;
  FixedDegrees degrees;
  IterationState state;
  beginpass(pass, degrees);
  // Phase 2: the data become cross-products.
  datapass(pass);
  // Phase 3.
  leastsquares(pass, degrees);
  // Phases 4 and 5.
  startingvalues(pass);
  // Phases 6 and 7: the heterogeneous stage, empty without HETIT:, then the ordinary one.
  beginiterations(pass, state);
  if (run.iter.hetit != 0) heterogeneousstage(pass, state, degrees);
  const bool ordinary = run.iter.numit != 0;
  if (ordinary) {
    iteratestage(pass, state, 2, run.iter.numit);
    stageresults(pass, state, degrees);
  }
  // Phase 8: what follows the stages.
  closingstatistics(state);
  if (ordinary && haveexploratory()) exploratory(pass);
  resultfiles(pass, state, ordinary);
  if (ordinary && run.out.printvc != 0) listvariancefiles();
  freestore(pass.store);
}

}  // namespace kdr
