#include "app/enginelines.h"

#include <cstdio>
#include <string>
#include <vector>

#include "core/evaluationcost.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/convergence.h"
#include "report/enginetables.h"
#include "report/modelstatistics.h"
#include "report/resultsdocument.h"
#include "report/variancefiles.h"

namespace kdr {

namespace {

void say(const char* words) {
  std::printf("%s", words);
  std::fflush(stdout);
}

}  // namespace

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
    case Kind::checked:
      return say(formatted("The number of points is checked with %d\n", event.number).c_str());
    case Kind::heavy:
      return say((longevaluationwords(event.number, event.seconds) + "\n").c_str());
    case Kind::marginal:
      return say(formatted("The marginal log-likelihood = %E\n", event.loglik).c_str());
    case Kind::problem:
      break;
  }
  if (event.failure == EngineFailure::unsettled)
    say(formatted("The modes of the random effects have not settled after %d sweeps of Laplace6\n", event.number)
            .c_str());
  const char* words = problemwords(engine, event.failure);
  if (*words != 0 && event.failure != EngineFailure::nodes) say(formatted("%s\n", words).c_str());
}

namespace {

// Says on the console that an engine stopped at its limit or from the keyboard.
void tellunconverged(const char* engine, const EngineStage& stage) {
  if (stage.results.ending == Ending::converged) return;
  std::printf("The iterations of %s were stopped prior to convergence.\n", engine);
}

void tellwarnings(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) std::printf("%s\n", warning.c_str());
}

void tellboth(const std::string& words) {
  reportline("%s", words.c_str());
  std::printf("%s\n", words.c_str());
}

void variancefiles(const char* taus, const char* gammas, const PassResults& results) {
  if (run.out.printvc == VarianceFiles::none) return;
  writetaufile(taus, results.est, results.errors, false);
  writegammafile(gammas, results.est.gammahat, results.covariance);
}

void telllaplace(const EngineStage& stage) {
  const PassResults& results = stage.results;
  const bool moving = !run.control.agqfixed;
  if (moving) tellwarnings(stage.fit.warnings);
  if (!stage.takenover) {
    laplacefailed(moving ? stage.fit.warnings : std::vector<std::string>{});
    std::printf("Unable to produce Laplace results.\n");
    markreport();
    return;
  }
  const bool estimated = stage.fit.end == EngineEnd::estimated;
  tellunconverged("Laplace-6", stage);
  if (estimated) {
    laplacetables(results, !stage.finalcall);
  } else {
    reportline("Laplace-6 has made no iteration: the likelihood is that of quasi-likelihood.");
  }
  modelstatistics(results);
  markreport();
  if (estimated) std::printf("The marginal log-likelihood = %E\n", results.marginal.value_or(absent));
  variancefiles(laplacetaufile, laplacegammafile, results);
}

void tellquadrature(const EngineStage& stage) {
  const PassResults& results = stage.results;
  const bool estimated = stage.fit.end == EngineEnd::estimated, moving = !run.control.agqfixed;
  if (moving) {
    tellwarnings(stage.fit.warnings);
    if (estimated)
      std::printf("%s\nThe marginal log-likelihood = %E\n", pointsline(results.quadrature).c_str(),
                  results.marginal.value_or(absent));
  }
  tellunconverged("quadrature", stage);
  if (estimated) {
    quadraturetables(results);
  } else {
    if (stage.fit.failure == EngineFailure::nodes) reportbreak();
    if (stage.fit.failure == EngineFailure::none) {
      reportline("Quadrature has no results.");
    } else {
      reportline("%s", problemwords(stage.engine, stage.fit.failure));
    }
    for (const std::string& warning : stage.fit.warnings) reportline("%s", warning.c_str());
  }
  for (const std::string& warning : stage.behind) tellboth(warning);
  if (!stage.takenover) {
    tellboth("The run goes on with the estimates that quadrature started from.");
    markreport();
    return;
  }
  if (estimated) {
    modelstatistics(results);
  } else {
    tellboth("The run goes on with the estimates of the last iteration of quadrature, which are not in this report.");
  }
  markreport();
  if (estimated) variancefiles(quadraturetaufile, quadraturegammafile, results);
}

}  // namespace

void tellenginestage(const EngineStage& stage) {
  documentengine(stage);
  stage.engine == Engine::laplace6 ? telllaplace(stage) : tellquadrature(stage);
  if (endedearly(stage, run.control.agqfixed)) notconverged("");
}

}  // namespace kdr
