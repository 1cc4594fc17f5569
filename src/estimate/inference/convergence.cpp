#include "estimate/inference/convergence.h"

#include "core/formatted.h"

namespace kdr {

bool endedearly(const PassResults& results) {
  if (results.ending == Ending::converged) return false;
  switch (results.kind) {
    case PassKind::linear:
      return results.loglik.has_value();
    case PassKind::populationaverage:
      return results.ending == Ending::keyboard || results.fixsigma2 == 0.0;
    default:
      return false;
  }
}

bool endedearly(const MacroEvent& event) {
  if (event.end == MacroEnd::goeson) return false;
  return event.end != MacroEnd::converged || event.separation.known();
}

Ending endingof(MacroEnd end, Ending ofpass) {
  switch (end) {
    case MacroEnd::converged:
      return Ending::converged;
    case MacroEnd::limit:
      return Ending::limit;
    case MacroEnd::lost:
      return Ending::lost;
    case MacroEnd::keyboard:
      return Ending::keyboard;
    default:
      return ofpass;
  }
}

bool doubtful(const EngineStage& stage, bool fixednodes) {
  return !fixednodes && stage.results.ending == Ending::converged && !stage.results.warnings.empty();
}

bool endedearly(const EngineStage& stage, bool fixednodes) {
  return !stage.takenover || stage.separated || stage.results.ending != Ending::converged ||
         doubtful(stage, fixednodes);
}

std::string unsettledwords(const PassResults& results) {
  const bool linear = results.kind == PassKind::linear,
             quasi = results.kind == PassKind::pql || results.kind == PassKind::categories;
  const bool met = linear && results.loglik && !results.heterogeneous && results.ending == Ending::converged;
  if ((!met && !quasi) || results.errors.stepleft < settled) return {};
  return formatted(
      "WARNING: the variance components have not settled: the next scoring step would move one of them\n"
      "by %.1f standard errors. You may want to re-run the analysis with a smaller %s.",
      results.errors.stepleft, linear ? "STOPVAL" : "STOPMICRO");
}

std::string unsettledaverage(const PassResults& results) {
  if (!results.unsettled || results.ending == Ending::keyboard) return {};
  return formatted("WARNING: the fixed effects of the population average have not settled in %d passes.",
                   results.rounds);
}

}  // namespace kdr
