#include "estimate/likelihood/engines.h"

#include <cmath>
#include <cstdio>
#include <thread>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "estimate/laplace/laplace.h"
#include "estimate/likelihood/recordbatches.h"
#include "estimate/likelihood/unconditional.h"
#include "estimate/linear/iteration.h"
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

void say(const char* words) {
  std::printf("%s", words);
  std::fflush(stdout);
}

// The lines of a failure; empty for none, and for one that has no words of its own.
const char* laplaceproblem(EngineFailure failure) {
  switch (failure) {
    case EngineFailure::centre2:
      return "Cannot compute Laplace6 inv[C]";
    case EngineFailure::centre3:
      return "Cannot compute Laplace6 V22";
    case EngineFailure::notdefinite:
      return "Unable to invert H in Laplace";
    default:
      return "";
  }
}
const char* quadratureproblem(EngineFailure failure) {
  switch (failure) {
    case EngineFailure::toomanyeffects:
      return "There are too many random effects for AGQ!";
    case EngineFailure::nodes:
      return "Too many iterations in gauher!";
    case EngineFailure::centre3:
      return "Unable to compute AGQ T(hat)(beta)";
    case EngineFailure::centre2:
      return "Unable to compute AGQ T(hat)(pi)";
    case EngineFailure::notdefinite:
      return "Unable to compute adaptive Gaussian Hessian";
    case EngineFailure::nostep:
      return "Unable to compute adaptive Gaussian Tau";
    default:
      return "";
  }
}

// The console's line of an engine on its way.
void tellengine(Engine engine, const EngineEvent& event) {
  using Kind = EngineEvent::Kind;
  const bool laplace = engine == Engine::laplace6;
  switch (event.kind) {
    case Kind::begun:
      return say("\n");
    case Kind::scoresweep:
      return say(">");
    case Kind::valuesweep:
      return say(".");
    case Kind::ridgeraised:
      return say("*");
    case Kind::ridgelowered:
      return say("/");
    case Kind::stephalved:
      return laplace ? void() : say("h");
    case Kind::fallen:
      return say("The log-likelihood has fallen: the step is halved\n");
    case Kind::iteration:
      return say(formatted(laplace ? "The likelihood at Laplace iteration %d is %E\n"
                                   : "The value of the log-likelihood function at AGQ iteration %d = %E\n",
                           event.number, event.loglik)
                     .c_str());
    case Kind::undefined:
      return say(
          "The Laplace6 likelihood is not defined at these values: the step is that of the first-order Laplace\n");
    case Kind::limit:
      return say("The Laplace6 iterations were stopped at their limit, before the estimates had settled\n");
    case Kind::marginal:
      return say(formatted("The marginal log-likelihood = %E\n", event.loglik).c_str());
    case Kind::problem:
      break;
  }
  if (event.failure == EngineFailure::unsettled)
    say(formatted("The modes of the random effects have not settled after %d sweeps of Laplace6\n", event.number)
            .c_str());
  const char* words = laplace ? laplaceproblem(event.failure) : quadratureproblem(event.failure);
  if (*words != 0 && event.failure != EngineFailure::nodes) say(formatted("%s\n", words).c_str());
}

EngineData enginedata(const Pass& pass, RecordSource source) {
  return {run.model.outcome.family, &pass.design,        pass.npi, pass.nbeta, run.mdm.nunits3,
          at(run.mdm.nunits2),      at(run.mdm.nunits1), source};
}

EngineSettings enginesettings(Engine engine, int iterations) {
  return {iterations, threads(), askstop, [engine](const EngineEvent& event) { tellengine(engine, event); }};
}

// `before` are the results of the last pass.
PassResults resultsof(PassKind kind, const EngineResult& fit, const PassResults& before) {
  PassResults results;
  results.kind = kind;
  results.macro = before.macro;
  results.est.taupi = fit.estimates.taupi.copy();
  results.est.taubeta = fit.estimates.taubeta.copy();
  results.est.gammahat = fit.estimates.gamma.copy();
  results.degrees = {before.degrees.df.copy(), before.degrees.rough.copy()};
  results.iteration = fit.iteration;
  results.loglik = fit.loglik;
  results.errors.asked = true;
  if (fit.end == EngineEnd::noiterations) {
    // The estimates are those of the pass, and so are their covariances.
    results.errors.order = before.errors.order;
    results.errors.covariance = before.errors.covariance.copy();
    results.covariance = before.covariance.copy();
    return results;
  }
  if (!fit.converged) results.ending = Ending::limit;
  results.marginal = fit.marginal;
  results.errors.order = static_cast<int>(fit.estimates.ntaupi() + fit.estimates.ntaubeta());
  results.errors.known = true;
  if (fit.completepi) results.errors.taupi = fit.setaupi.copy();
  if (fit.completebeta) results.errors.taubeta = fit.setaubeta.copy();
  results.errors.covariance = fit.taucovariance.copy();
  results.covariance = fit.vgamma.copy();
  results.warnings = fit.warnings;
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
  const EngineData data = enginedata(pass, recordbatches(batches, pass, state));
  LaplaceSettings settings;
  settings.engine = enginesettings(Engine::laplace6, run.control.laplaceit);
  settings.stopmacro = run.control.stopmacro;
  holdinterrupts();
  const LaplaceResult result =
      runlaplace(data, settings, currentparameters(pass), posteriormeans2(pass), pass.vstar.cells, before.loglik);
  releaseinterrupts();
  if (result.fit.end == EngineEnd::failed) {
    laplacefailed();
    documentwarning("Fisher scoring is unable to compute a Laplace-6 estimate within the parameter space.");
    notconverged("Unable to produce Laplace results.\n");
    markreport();
    return;
  }
  PassResults results = resultsof(PassKind::laplace6, result.fit, before);
  if (result.fit.end == EngineEnd::estimated)
    results.reliabilities = {result.rel2.copy(), result.rel3.copy(), result.nrel2, result.nrel3};
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
  const bool estimated = result.fit.end == EngineEnd::estimated;
  if (estimated) {
    laplacetables(results, !result.finalcall);
  } else {
    reportline("Laplace-6 has made no iteration: the likelihood is that of quasi-likelihood.");
  }
  modelstatistics(result.fit.loglik, 2);
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
  Array<double> C2(square(q)), Q(at(r) * at(q)), room(at(r) * at(q));
  sweepunits(
      pass.n2of, [](int) {},
      [&](int k, std::size_t j, const double* hot) {
        unpack(q, hot + pass.store.atCinv, C2.data());
        for (double& c : C2) c *= run.est.sigma2;
        mulAB(Q.data(), hot + pass.store.atBZ1, C2.data(), r, q, q);
        addunconditional(adaptation.P.data() + j * square(q), q, r, C2.data(), Q.data(),
                         adaptation.C3.data() + at(k) * square(r), room.data());
      },
      [](int) {}, reading(pass.store.hot));
  return adaptation;
}

// Standard errors of the fixed effects that fall short of those of quasi-likelihood by a tenth come from integrals with
// too few points: their information counts what the integration misses.
bool shorterrors(const QuadratureResult& result, const PassResults& before, int g) {
  constexpr double share = 0.8;
  for (int i = 0; i < g; ++i)
    if (result.fit.vgamma[i * (g + 1)] < share * before.covariance[i * (g + 1)]) return true;
  return false;
}

void quadrature(Pass& pass, MacroState& state, const PassResults& before) {
  RecordBatches batches;
  const EngineData data = enginedata(pass, recordbatches(batches, pass, state));
  QuadratureSettings settings;
  settings.engine = enginesettings(Engine::quadrature, run.control.agqit);
  settings.points = run.control.agqpoints;
  settings.derivlevel = run.control.agqderivlevel;
  settings.diagonalpi = run.model.restrictions.diagtaupi;
  settings.diagonalbeta = run.model.restrictions.diagtaubeta;
  holdinterrupts();
  const QuadratureResult result = adaptivequadrature(data, settings, currentparameters(pass), startingadaptation(pass));
  releaseinterrupts();
  const EngineResult& fit = result.fit;
  const bool estimated = fit.end == EngineEnd::estimated;
  const PassResults results = resultsof(PassKind::quadrature, fit, before);
  tellunconverged("quadrature", results);
  if (estimated) {
    quadraturetables(results);
  } else {
    if (fit.failure == EngineFailure::nodes) reportbreak();
    reportline("%s", quadratureproblem(fit.failure));
    documentwarning(quadratureproblem(fit.failure));
    for (const std::string& warning : fit.warnings) {
      reportline("%s", warning.c_str());
      documentwarning(warning);
    }
  }
  if (estimated && shorterrors(result, before, pass.g)) {
    const char* words = "WARNING: standard errors are far below those of PQL. Use more quadrature points.";
    reportline("%s", words);
    std::printf("%s\n", words);
    documentwarning(words);
  }
  const auto goeson = [](const char* from) {
    const std::string words = std::string("The run goes on with the estimates ") + from;
    reportline("%s", words.c_str());
    std::printf("%s\n", words.c_str());
  };
  if (fit.end == EngineEnd::failed || fit.farbelow) {
    notconverged("");
    if (estimated) documentending(false);
    goeson("that quadrature started from.");
    markreport();
    return;
  }
  takeestimates(results);
  if (estimated) {
    modelstatistics(fit.loglik, 2);
  } else {
    goeson("of the last iteration of quadrature, which are not in this report.");
  }
  markreport();
  state.quadraturegamma = run.est.gammahat.copy();
  if (estimated) variancefiles(quadraturetaufile, quadraturegammafile, results);
}

}  // namespace

void maximumlikelihood(Pass& pass, MacroState& state, const PassResults& before) {
  if (run.control.laplace) laplace(pass, state, before);
  if (run.control.agqpoints != 0) quadrature(pass, state, before);
}

}  // namespace kdr
