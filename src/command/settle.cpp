#include "command/settle.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "core/formatted.h"
#include "core/names.h"
#include "core/settling.h"
#include "driver/failures.h"
#include "driver/oddities.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

bool multinomial() { return run.model.outcome.family == Family::multinomial; }

void checknonlinear() {
  const Model& kind = run.model;
  if (run.control.macroit != 0 && kind.outcome.linear())
    stopwith("If non-linear iterations desired, the type must be specified\n");
  if (kind.outcome.linear()) return;
  if (run.control.macroit == 0) stopwith(" macroit must be specified if nonlin is specified.\n");
  if (run.answered.numit)
    stopwith(
        " The numit directive should not be used when specifying a non-linear model.\n"
        " Use the microit and macroit keywords.\n");
  if (run.answered.stopval)
    stopwith(
        " The stopval directive should not be used when specifying a non-linear model.\n"
        " Use the stopmicro and stopmacro keywords.\n");
}

// Another value that the command file asks for is not passed over in silence.
void holdsigma2() {
  const char* reason = variancekeeper(run.model, run.control);
  if (reason == nullptr) return;
  std::optional<double>& held = run.model.restrictions.fixsigma2;
  if (held && *held != 1.0)
    oddcommand(formatted(" FIXSIGMA2:%g has no effect: with %s sigma^2 is held at 1.\n", *held, reason));
  held = 1.0;
}

void settleengines() {
  const Model& kind = run.model;
  Control& iter = run.control;
  if (iter.laplace && kind.outcome.family != Family::bernoulli)
    stopwith("LaPlace iterations may only be done on Bernoulli analyses.");
  if (iter.agqpoints != 0) {
    if (kind.outcome.linear()) stopwith("Adaptive quadrature may only be done on non-linear analyses.\n");
    if (iter.agqfixed && (iter.agqauto || iter.agqpoints < 3))
      stopwith("With AGQNODES:FIXED the number of quadrature points must be 3 to 198!\n");
  }
  holdsigma2();
}

void checklvr() {
  if (!run.out.lvr) return;
  if (run.control.fishertype == FisherType::none) stopwith("You cannot do LVR and set fishertype:0!\n");
  if (multinomial()) stopwith(" The program cannot do latent variable regressions in a multinomial run.\n");
  if (!hasoutcomeandpredictor()) stopwith(incompletelvr);
}

std::string eightof(int v) { return leftname(run.mdm.names1[static_cast<std::size_t>(v)]); }

// How the model uses a level-1 variable in any of its equation sets.
Use useof(int variable) {
  for (int e = 0; e < run.model.neqsets; ++e)
    if (const Use use = run.model.use1.row(e)[variable]; use != Use::none) return use;
  return Use::none;
}

// Each plausible value takes the place of the first one in the model. A level-1 equation has its predictors in the
// order of the MDM file, so the place stays the same only when no other predictor stands between the values there.
void checkplausible() {
  const SeriesMode& series = run.series;
  if (!series.pvmode || !series.pvfirst) return;
  const int first = series.pvlist[0];
  if (first == 0 || useof(first) == Use::none)
    stopwith("The first plausible value, %s, must be the outcome or a predictor of the model!\n",
             eightof(first).c_str());
  const auto taken = [](int value) {
    return useof(value) != Use::none || value == run.model.outcome.countvariable.value_or(0);
  };
  for (std::size_t i = 1; i < series.pvlist.size(); ++i) {
    const int value = series.pvlist[i];
    if (value == 0 || taken(value) || std::count(series.pvlist.begin(), series.pvlist.end(), value) > 1)
      stopwith("The plausible value %s stands in the model or in its list already!\n", eightof(value).c_str());
    const auto [from, to] = std::minmax(first, value);
    for (int v = from + 1; useof(first) == Use::predictor && v < to; ++v)
      if (useof(v) == Use::predictor)
        stopwith("The predictor %s stands between the plausible values %s and %s in the MDM file!\n",
                 eightof(v).c_str(), eightof(first).c_str(), eightof(value).c_str());
  }
}

void checkcountvariable() {
  if (!countsinequations(run.model)) return;
  std::printf(run.model.outcome.link() == Link::logit ? " The binomial count " : " The poisson variable exposure ");
  stopwith("variable is also used in the model!\n");
}

// What the steps of the restricted likelihood have no use for.
void tellidle(bool idle, const char* keyword) {
  if (idle)
    oddcommand(
        formatted(" %s has no effect: the restricted likelihood has steps and a criterion of its own.\n", keyword));
}

void settlerestricted() {
  Control& iter = run.control;
  if (run.id.restricted) iter.restricted = true;
  if (iter.restricted) {
    const Control usual;
    tellidle(iter.fishertype != usual.fishertype, "FISHERTYPE:");
    tellidle(iter.accel != usual.accel, "ACCEL:");
    tellidle(run.answered.stopval && iter.stopval != usual.stopval, "STOPVAL:");
  }
  if (iter.edgefull && !iter.restricted && iter.ddf == DegreesMethod::counts)
    oddcommand(" EDGECOV:FULL has no effect without LIKELIHOOD:REML or DDF:.\n");
}

}  // namespace

bool hasoutcomeandpredictor() {
  const Array<LatentRole>& roles = run.out.lvrroles;
  return std::find(roles.begin(), roles.end(), LatentRole::outcome) != roles.end() &&
         std::find(roles.begin(), roles.end(), LatentRole::predictor) != roles.end();
}

void settlerecord() {
  checknonlinear();
  settleengines();
  checklvr();
  checkplausible();
  checkcountvariable();
  settlerestricted();
  settlecontrol(run.model, run.answered.stopmicro, run.control);
  if (run.out.graph && run.model.outcome.categorical()) run.out.resfil1 = true;
  if (!run.model.outcome.linear() && run.model.outcome.countvariable)
    run.out.wanted1vars1[static_cast<std::size_t>(*run.model.outcome.countvariable)] = 1;
}

}  // namespace kdr
