#include "estimate/likelihood/engines.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "estimate/laplace/laplace.h"
#include "estimate/likelihood/recordbatches.h"
#include "estimate/linear/iteration.h"
#include "estimate/quadrature/movingquadrature.h"
#include "estimate/quadrature/quadrature.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "report/enginetables.h"
#include "report/modelstatistics.h"
#include "report/resultsdocument.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

int threads() {
  if (run.id.threads > 0) return run.id.threads;
  const unsigned cores = std::thread::hardware_concurrency();
  return cores > 0 ? static_cast<int>(cores) : 1;
}

bool askstop() { return interrupted() && askinterrupt(); }

Parameters currentparameters(const Pass& pass) {
  return {pass.p, pass.b, pass.g, run.est.taupi.copy(), run.est.taubeta.copy(), run.est.gammahat.copy()};
}

// What both engines hand back in the same way; `before` are the results of the last pass.
PassResults startresults(PassKind kind, const Parameters& estimates, const PassResults& before) {
  PassResults results;
  results.kind = kind;
  results.macro = before.macro;
  results.est.taupi = estimates.taupi.copy();
  results.est.taubeta = estimates.taubeta.copy();
  results.est.gammahat = estimates.gamma.copy();
  results.degrees = {before.degrees.df.copy(), before.degrees.rough.copy()};
  results.errors.asked = true;
  results.errors.order = static_cast<int>(estimates.ntaupi() + estimates.ntaubeta());
  return results;
}

PassResults resultsof(const LaplaceResult& laplace, const PassResults& before) {
  PassResults results = startresults(PassKind::laplace6, laplace.estimates, before);
  results.iteration = laplace.iteration;
  results.loglik = laplace.loglik;
  if (laplace.end == LaplaceEnd::noiterations) {
    // The estimates are those of the pass, and so are their covariances.
    results.errors.order = before.errors.order;
    results.errors.covariance = before.errors.covariance.copy();
    results.covariance = before.covariance.copy();
    return results;
  }
  // The printed likelihood is lower than the marginal one by this constant.
  results.marginal = laplace.loglik + 0.5 * run.mdm.nunits1 * std::log(2.0 * M_PI);
  if (!laplace.converged) {
    results.ending = Ending::limit;
    results.warnings.emplace_back("WARNING: the iterations of Laplace-6 ended before they had converged.");
  }
  results.errors.known = true;
  results.errors.taupi = laplace.setaupi.copy();
  results.errors.taubeta = laplace.setaubeta.copy();
  results.errors.covariance = laplace.taucovariance.copy();
  results.covariance = laplace.vgamma.copy();
  results.reliabilities = {laplace.rel2.copy(), laplace.rel3.copy(), laplace.nrel2, laplace.nrel3};
  return results;
}

PassResults resultsof(const QuadratureResult& quadrature, const PassResults& before) {
  PassResults results = startresults(PassKind::quadrature, quadrature.parameters, before);
  results.iteration = quadrature.iteration;
  results.loglik = quadrature.loglikelihood;
  results.marginal = quadrature.marginal;
  if (!quadrature.converged) results.ending = Ending::limit;
  results.errors.known = true;
  if (quadrature.taupiseusable) results.errors.taupi = quadrature.taupise.copy();
  if (quadrature.taubetaseusable) results.errors.taubeta = quadrature.taubetase.copy();
  results.errors.covariance = quadrature.vtau.copy();
  results.covariance = quadrature.vgamma.copy();
  results.warnings = quadrature.warnings;
  return results;
}

// Says on the console that an engine stopped at its limit or from the keyboard.
void tellunconverged(const char* engine, const PassResults& results) {
  if (results.ending == Ending::converged) return;
  notconverged(std::string("The iterations of ") + engine + " were stopped prior to convergence.\n");
}

// The estimates of an engine become those of the run, without a covariance where the engine has none.
void takeestimates(const PassResults& results) {
  run.est.taupi = results.est.taupi.copy();
  run.est.taubeta = results.est.taubeta.copy();
  run.est.gammahat = results.est.gammahat.copy();
  if (results.covariance.empty()) return;
  run.est.vgamma = results.covariance.copy();
  for (double& v : run.est.vgamma) v /= run.est.sigma2;
}

void variancefiles(const char* taus, const char* gammas, const PassResults& results) {
  if (run.out.printvc == 0) return;
  writetaufile(taus, results.est, results.errors, false);
  writegammafile(gammas, results.est.gammahat, results.covariance);
}

Array<double> posteriormeans2(Pass& pass) {
  Array<double> u(at(run.mdm.nunits2) * at(pass.p));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int, std::size_t j, const double* hot) {
        std::copy_n(hot + pass.store.atustar, pass.p, u.data() + j * at(pass.p));
      },
      [](int) {}, reading(pass.store.hot));
  return u;
}

void laplace(Pass& pass, MacroState& state, const PassResults& before) {
  RecordBatches batches;
  LaplaceData data;
  data.design = &pass.design;
  data.npi = pass.npi;
  data.nbeta = pass.nbeta;
  data.units3 = run.mdm.nunits3;
  data.units2 = at(run.mdm.nunits2);
  data.records = at(run.mdm.nunits1);
  data.source = recordbatches(batches, pass, state);
  LaplaceSettings settings;
  settings.stopmacro = run.control.stopmacro;
  settings.laplaceit = run.control.laplaceit;
  settings.threads = threads();
  settings.stopasked = askstop;
  holdinterrupts();
  const LaplaceResult result =
      runlaplace(data, settings, currentparameters(pass), posteriormeans2(pass), pass.vstar.cells, before.loglik);
  releaseinterrupts();
  if (result.end == LaplaceEnd::failed) {
    laplacefailed();
    documentwarning("Fisher scoring is unable to compute a Laplace-6 estimate within the parameter space.");
    notconverged("Unable to produce Laplace results.\n");
    markreport();
    return;
  }
  const PassResults results = resultsof(result, before);
  tellunconverged("Laplace-6", results);
  takeestimates(results);
  // The modes and the curvature of the last walk are what quadrature starts from.
  if (!result.u.empty()) {
    pass.vstar.cells = result.v.copy();
    sweepunits(
        pass.n2of, [](int) {},
        [&](int, std::size_t j, double* hot) {
          std::copy_n(result.u.data() + j * at(pass.p), pass.p, hot + pass.store.atustar);
        },
        [](int) {}, changing(pass.store.hot));
  }
  const bool estimated = result.end == LaplaceEnd::estimated;
  if (estimated) {
    laplacetables(results, !result.finalcall);
  } else {
    reportline("Laplace-6 has made no iteration: the likelihood is that of quasi-likelihood.");
  }
  modelstatistics(result.loglik, 2);
  markreport();
  state.laplacegamma = run.est.gammahat.copy();
  if (estimated) std::printf("The marginal log-likelihood = %E\n", results.marginal);
  variancefiles(laplacetaufile, laplacegammafile, results);
}

Adaptation startingadaptation(Pass& pass) {
  const int q = pass.p, r = pass.b;
  Adaptation adaptation;
  adaptation.vstar = pass.vstar.cells.copy();
  adaptation.C3 = pass.dinv.cells.copy();
  for (double& c : adaptation.C3) c *= run.est.sigma2;
  adaptation.ustar = posteriormeans2(pass);
  adaptation.P.reset(at(run.mdm.nunits2) * square(q));
  Array<double> C2(square(q));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int k, std::size_t j, const double* hot) {
        unpack(q, hot + pass.store.atCinv, C2.data());
        for (double& c : C2) c *= run.est.sigma2;
        unconditionalcovariance(q, r, C2.data(), hot + pass.store.atBZ1, adaptation.C3.data() + at(k) * square(r),
                                adaptation.P.data() + j * square(q));
      },
      [](int) {}, reading(pass.store.hot));
  return adaptation;
}

// Standard errors of the fixed effects that fall short of those of quasi-likelihood by a tenth come from integrals with
// too few points: their information counts what the integration misses.
bool shorterrors(const QuadratureResult& result, const PassResults& before, int g) {
  constexpr double share = 0.8;
  for (int i = 0; i < g; ++i)
    if (result.vgamma[i * (g + 1)] < share * before.covariance[i * (g + 1)]) return true;
  return false;
}

void quadrature(Pass& pass, MacroState& state, const PassResults& before) {
  std::printf("\n");
  RecordBatches batches;
  RecordSource source = recordbatches(batches, pass, state);
  QuadratureSettings settings;
  settings.outcome = run.model.outcome.family;
  settings.points = run.control.agqpoints;
  settings.iterations = run.control.agqit;
  settings.derivlevel = run.control.agqderivlevel;
  settings.diagonalpi = run.model.restrictions.diagtaupi;
  settings.diagonalbeta = run.model.restrictions.diagtaubeta;
  settings.threads = threads();
  settings.interrupted = askstop;
  settings.console = [](const char* text) {
    std::printf("%s", text);
    std::fflush(stdout);
  };
  holdinterrupts();
  const QuadratureResult result = adaptivequadrature(settings, pass.npi, pass.nbeta, pass.design, source,
                                                     currentparameters(pass), startingadaptation(pass));
  releaseinterrupts();
  const PassResults results = resultsof(result, before);
  tellunconverged("quadrature", results);
  if (result.finished) {
    quadraturetables(results);
  } else {
    if (result.failure == QuadratureFailure::nodes) reportbreak();
    reportline("%s", failureline(result.failure));
    documentwarning(failureline(result.failure));
    for (const std::string& warning : result.warnings) {
      reportline("%s", warning.c_str());
      documentwarning(warning);
    }
  }
  if (result.finished && shorterrors(result, before, pass.g)) {
    const char* words = "WARNING: standard errors are far below those of PQL. Use more quadrature points.";
    reportline("%s", words);
    std::printf("%s\n", words);
    documentwarning(words);
  }
  // Estimates of an estimation that broke off with a warning are none, nor are those that fell far below what was
  // reached before.
  constexpr double farbelow = 1.0;
  const auto goeson = [](const char* from) {
    const std::string words = std::string("The run goes on with the estimates ") + from;
    reportline("%s", words.c_str());
    std::printf("%s\n", words.c_str());
  };
  const bool fallen = result.finished && result.highest - result.loglikelihood > farbelow;
  if (result.code == 0 || fallen || (!result.finished && !result.warnings.empty())) {
    notconverged("");
    if (result.finished) documentending(false);
    goeson("that quadrature started from.");
    markreport();
    return;
  }
  takeestimates(results);
  if (result.finished) {
    modelstatistics(result.loglikelihood, 2);
  } else {
    goeson("of the last iteration of quadrature, which are not in this report.");
  }
  markreport();
  state.quadraturegamma = run.est.gammahat.copy();
  if (result.finished) variancefiles(quadraturetaufile, quadraturegammafile, results);
}

// The square matrix of n(n+1)/2 consecutive elements.
template <class Matrix, class Element>
Matrix symmetric(int n, Element element) {
  Matrix matrix(square(n));
  eachelement(
      n, [&](int e, int i, int j) { matrix[at(i) * at(n) + at(j)] = matrix[at(j) * at(n) + at(i)] = element(at(e)); });
  return matrix;
}

PassResults resultsof(const MovingResult& fit, const PassResults& before) {
  const Parameters& estimates = fit.parameters;
  PassResults results;
  results.kind = PassKind::quadrature;
  results.macro = before.macro;
  results.iteration = fit.iterations;
  results.est.taupi = estimates.taupi.copy();
  results.est.taubeta = estimates.taubeta.copy();
  results.est.gammahat = estimates.gamma.copy();
  results.degrees = {before.degrees.df.copy(), before.degrees.rough.copy()};
  results.marginal = fit.loglikelihood;
  // The printed likelihood is without binomial coefficients, and lower by a constant.
  results.loglik = fit.loglikelihood - fit.combinations - 0.5 * fit.records * std::log(2.0 * M_PI);
  if (fit.end == MovingEnd::stopped) results.ending = Ending::keyboard;
  if (fit.end == MovingEnd::limit || fit.end == MovingEnd::nomaximum) results.ending = Ending::limit;
  const std::size_t P = estimates.count(), P2 = estimates.ntaupi(), taus = P2 + estimates.ntaubeta();
  const auto errors = [&](int n, std::size_t first) {
    return symmetric<Array<double>>(n, [&](std::size_t e) {
      const std::size_t i = first + e;
      return fit.edge[i] ? missingcode : std::sqrt(std::max(fit.covariance[i * P + i], 0.0));
    });
  };
  const auto edges = [&](int n, std::size_t first) {
    return symmetric<std::vector<bool>>(n, [&](std::size_t e) -> bool { return fit.edge[first + e]; });
  };
  results.errors.asked = results.errors.known = true;
  results.errors.order = static_cast<int>(taus);
  results.errors.taupi = errors(estimates.q, 0);
  results.errors.taubeta = errors(estimates.r, P2);
  results.errors.edgepi = edges(estimates.q, 0);
  results.errors.edgebeta = edges(estimates.r, P2);
  results.errors.covariance = diagonalblock(fit.covariance.data(), P, 0, taus, 1.0);
  results.covariance = diagonalblock(fit.covariance.data(), P, taus, at(estimates.g), 1.0);
  results.warnings = fit.warnings;
  results.notes = fit.notes;
  results.quadrature = {fit.points, fit.check.made ? fit.check.next : 0, fit.check.change, fit.check.errorchange,
                        fit.check.agrees};
  return results;
}

// Quadrature whose nodes go with the data.
void movingnodes(Pass& pass, MacroState& state, const PassResults& before) {
  std::printf("\n");
  RecordBatches batches;
  RecordSource source = recordbatches(batches, pass, state);
  MovingSettings settings;
  settings.outcome = run.model.outcome.family;
  settings.points = run.control.agqauto ? 0 : run.control.agqpoints;
  settings.iterations = run.control.agqit;
  settings.outerproducts = run.control.agqderivlevel == 1;
  settings.diagonalpi = run.model.restrictions.diagtaupi;
  settings.diagonalbeta = run.model.restrictions.diagtaubeta;
  settings.threads = threads();
  QuadratureObserver observer;
  observer.line = [](const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  };
  observer.stop = askstop;
  holdinterrupts();
  const MovingResult fit =
      movingquadrature(settings, pass.npi, pass.nbeta, pass.design, source, currentparameters(pass), observer);
  releaseinterrupts();
  for (const std::string& warning : fit.warnings) std::printf("%s\n", warning.c_str());
  if (!fit.usable) {
    reportline("Quadrature has no results.");
    for (const std::string& warning : fit.warnings) {
      reportline("%s", warning.c_str());
      documentwarning(warning);
    }
    const char* words = "The run goes on with the estimates that quadrature started from.";
    reportline("%s", words);
    notconverged(formatted("%s\n", words));
    markreport();
    return;
  }
  PassResults results = resultsof(fit, before);
  tellunconverged("quadrature", results);
  // A check that fails is a result that did not converge to the one that is wanted.
  const bool failedcheck = results.ending == Ending::converged && !fit.warnings.empty();
  if (failedcheck) notconverged("");
  std::printf("%s\nThe marginal log-likelihood = %E\n", pointsline(results.quadrature).c_str(), results.marginal);
  takeestimates(results);
  quadraturetables(results);
  if (failedcheck) documentending(false);
  modelstatistics(results.loglik, 2);
  markreport();
  state.quadraturegamma = run.est.gammahat.copy();
  variancefiles(quadraturetaufile, quadraturegammafile, results);
}

}  // namespace

void maximumlikelihood(Pass& pass, MacroState& state, const PassResults& before) {
  if (run.control.laplace) laplace(pass, state, before);
  if (run.control.agqpoints == 0 || run.control.agqit == 0) return;
  (run.control.agqfixed ? quadrature : movingnodes)(pass, state, before);
}

}  // namespace kdr
