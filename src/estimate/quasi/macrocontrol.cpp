#include "estimate/quasi/macrocontrol.h"

#include <algorithm>
#include <cstdio>

#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "estimate/quasi/macrotest.h"
#include "kernel/sizes.h"
#include "report/passtables.h"
#include "report/resultsdocument.h"

namespace kdr {

namespace {

Parameters parametersof(const Estimates& est) {
  return {run.model.coef.ntaupi, run.model.coef.ntaubeta, run.model.coef.ngamma,
          est.taupi.copy(),      est.taubeta.copy(),      est.gammahat.copy()};
}

// The allowance has run out: true to close the phase all the same.
bool closeatlimit(MacroState& state) {
  constexpr int farlimit = 10000;
  const int continuing = run.control.numitcontinue;
  if (continuing == 1 ||
      (continuing == 2 &&
       askyesno("\nThe maximum number of iterations has been reached, but the analysis has\nnot converged. Do you want "
                "to continue until convergence?"))) {
    std::printf("Setting number of macro iterations to %d.\n\n", farlimit);
    state.left = farlimit;
    return false;
  }
  notconverged("The macro iterations were stopped prior to convergence.\n");
  reportwarning(
      "WARNING: the macro iterations were stopped prior to convergence.\n"
      "You may want to re-run the analysis with a higher number of macro iterations.");
  return true;
}

void warnunsettled(const PassResults& results) {
  const std::string words = unsettledwords(results);
  if (words.empty()) return;
  notconverged(words + "\n");
  documentwarning(words);
  reportwarning(words);
}

// Whether the loop creeps: micro iterations that stop early move the variance components so little that the macro test
// takes it for standing still, or that it is never met. An element near 0 that changes by a share of itself for ever
// does not meet it either.
bool creeps(const MacroState& state, const PassResults& results, bool converged) {
  constexpr int patience = 20;
  return converged ? results.errors.stepleft >= settled : state.macro >= patience;
}

}  // namespace

void beginmacro(MacroState& state) {
  ++state.macro;
  std::printf("\n                         MACRO ITERATION %d\n\n", state.macro);
  std::fflush(stdout);
}

bool phasecloses(MacroState& state, const PassResults& results, bool first) {
  bool converged = !first && macrotest(parametersof(results.est), parametersof(state.previous), run.control.stopmacro);
  if (!first && !state.iterations.searching && creeps(state, results, converged)) {
    std::printf("The macro iterations creep: from here on each searches for the maximum of its log-likelihood.\n");
    state.iterations.searching = true;
    converged = false;
  }
  const bool stopped = results.ending == Ending::keyboard;
  if (results.kind != PassKind::identity) documentending(converged);
  if (converged) std::printf("The macro iterations have converged at iteration %d.\n", state.macro);
  if (!converged && stopped) {
    notconverged("The macro iterations were stopped from the keyboard, prior to convergence.\n");
    endingwords(results);
  }
  if (converged || stopped || (state.left <= 1 && closeatlimit(state))) {
    warnunsettled(results);
    return true;
  }
  --state.left;
  return false;
}

void averagecloses(const PassResults& results) {
  const bool unfinished = results.ending == Ending::limit && results.fixsigma2 == 0.0;
  if (results.ending != Ending::keyboard && !unfinished) return;
  notconverged("The iterations of the population average were stopped prior to convergence.\n");
  endingwords(results);
}

Array<double> graphgammas(const MacroState& state) {
  const std::size_t g = at(run.model.coef.ngamma);
  Array<double> gammas(3 * g);
  std::size_t first = 0;
  for (const Array<double>* gamma : {&state.unitspecificgamma, &state.laplacegamma, &state.quadraturegamma}) {
    if (gamma->empty()) {
      gammas[first] = missingcode;
    } else {
      std::copy(gamma->begin(), gamma->end(), gammas.data() + first);
    }
    first += g;
  }
  return gammas;
}

}  // namespace kdr
