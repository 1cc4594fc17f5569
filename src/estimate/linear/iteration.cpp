#include "estimate/linear/iteration.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/edgesearch.h"
#include "estimate/linear/fixtau.h"
#include "estimate/linear/results.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"
#include "report/passtables.h"

namespace kdr {

namespace {

constexpr int maxfisherfailures = 4;
constexpr int fisheroff = 100000;

// Estimates as they stood before an accelerated step.
struct SavedEstimates {
  double sigma2;
  Array<double> taupi, taubeta, gamma;
};

SavedEstimates saveestimates() {
  return {run.est.sigma2, run.est.taupi.copy(), run.est.taubeta.copy(), run.est.gammahat.copy()};
}

void restoretaus(const Pass& pass, const SavedEstimates& saved) {
  run.est.taupi = saved.taupi.copy();
  run.est.taubeta = saved.taubeta.copy();
  if (pass.fixsigma2 == 0.0) run.est.sigma2 = saved.sigma2;
}

// What an iteration number went through; the loop may go round the same number more than once.
struct Attempt {
  bool fisherok = false;  // a Fisher step stands
  bool aitkenok = false;  // an extrapolation stands
  int noaccel = 0;        // no accelerated step any more
};

enum class Step { stands, continuewithem, retry };

Step tryaitken(Pass& pass, IterationState& state, Attempt& attempt, const SavedEstimates& saved) {
  double& s = run.est.sigma2;
  const bool fixed = pass.fixsigma2 != 0.0;
  double lambda = fixed ? 0.0 : (s - state.s1) / (state.s1 - state.s2);
  if (!aitkenstep(pass, lambda, state.history)) {
    attempt.noaccel = 1;
    return Step::retry;
  }
  if (!fixed) s = state.s1 + (s - state.s1) / (1.0 - lambda);
  applytaupi(run.est.taupi.data());
  applytaubeta(run.est.taubeta.data());
  if (usableestimates(pass)) {
    attempt.aitkenok = true;
    return Step::continuewithem;
  }
  restoretaus(pass, saved);
  attempt = {false, false, 1};
  return Step::retry;
}

bool invertible(const Array<double>& t, int n) {
  Array<double> S;
  double logdet = 0.0;
  return scaleinverse(t.data(), n, 1.0, S, logdet) == 0;
}

// Up to six tries of the step d: a part whose matrix was not invertible is halved.
Step tryfishersteps(Pass& pass, IterationState& state, Attempt& attempt, const SavedEstimates& saved) {
  constexpr int tries = 6;
  const FisherWork& fisher = state.fisher;
  const auto NT = static_cast<std::size_t>(fisher.NT);
  const std::size_t nt = packedsize(pass.p);
  Array<double> d = scoringdirection(fisher);
  const auto halve = [&](std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) d[i] *= 0.5;
  };
  for (int t = 1; t <= tries; ++t) {
    if (pass.fixsigma2 == 0.0) run.est.sigma2 += d[NT - 1];
    if (!pass.plan.tausstand()) {
      addtriangle(run.est.taupi.data(), pass.p, d.data(), 1.0);
      applytaupi(run.est.taupi.data());
      addtriangle(run.est.taubeta.data(), pass.b, d.data() + nt, 1.0);
      applytaubeta(run.est.taubeta.data());
    }
    if (usableestimates(pass)) {
      if (t < tries) return Step::stands;
      break;
    }
    const bool badpi = !invertible(run.est.taupi, pass.p);
    const bool badbeta = !invertible(run.est.taubeta, pass.b);
    const bool badsigma2 = !(run.est.sigma2 > 0.0);
    restoretaus(pass, saved);
    if (badpi) halve(0, nt);
    if (badbeta) halve(nt, NT - 1);
    if (badsigma2) halve(NT - 1, NT);
  }
  attempt = {false, false, 1};
  state.likelihood.current = state.likelihood.previous;
  ++state.fisherfailures;
  run.est.gammahat = saved.gamma.copy();
  return Step::retry;
}

Step tryfisher(Pass& pass, IterationState& state, Attempt& attempt, const SavedEstimates& saved) {
  if (!fisherstep(pass, state.fisher, state.likelihood, false)) {
    ++state.fisherfailures;
    return Step::continuewithem;
  }
  attempt.fisherok = true;
  return tryfishersteps(pass, state, attempt, saved);
}

void shifthistories(IterationState& state) {
  TauHistory& history = state.history;
  history.T2 = std::move(history.T1);
  history.T1 = run.est.taupi.copy();
  history.L2 = std::move(history.L1);
  history.L1 = run.est.taubeta.copy();
}

// The work of one iteration number: one EM step or an accelerated one, as often as it takes.
Attempt updateestimates(Pass& pass, IterationState& state, EmSums& em) {
  Attempt attempt;
  for (;;) {
    if (pass.plan.tausstand()) ++attempt.noaccel;
    const bool accelerate =
        state.iteration % run.control.accel == 0 && attempt.noaccel == 0 && state.hetstate == 2 && !state.confirming;
    Step step = Step::continuewithem;
    SavedEstimates saved{};
    if (accelerate) {
      saved = saveestimates();
      const bool aitken = run.control.fishertype == 0 || state.fisherfailures >= maxfisherfailures;
      step = aitken ? tryaitken(pass, state, attempt, saved) : tryfisher(pass, state, attempt, saved);
      if (step == Step::retry) continue;
    } else {
      shifthistories(state);
    }
    if (step == Step::continuewithem)
      emstep(pass, state.likelihood, em, state.hetstate == 1 ? &state.hettaupi : nullptr);
    if ((attempt.aitkenok || attempt.fisherok) && state.likelihood.current < state.likelihood.previous) {
      ++attempt.noaccel;
      attempt.aitkenok = attempt.fisherok = false;
      ++state.fisherfailures;
      state.likelihood.current = state.likelihood.previous;
      restoretaus(pass, saved);
      run.est.gammahat = saved.gamma.copy();
      continue;
    }
    return attempt;
  }
}

// One of the last log-likelihoods, for the printed tail.
struct TailEntry {
  int iteration;
  double loglik;
};

// The lines of the console and of the report about the log-likelihood.
struct Progress {
  TailEntry last[5] = {};
  int entries = 0;

  void add(int iteration, double loglik) {
    if (entries == 5) {
      std::copy(last + 1, last + 5, last);
      --entries;
    }
    last[entries++] = {iteration, loglik};
  }
};

void reportlikelihood(const TailEntry& entry) {
  reportline("The value of the log-likelihood function at iteration %d = %E", entry.iteration, entry.loglik);
}

void showlikelihood(const PassPlan& plan, int iteration, double loglik) {
  if (reportisstdout()) return;
  if (plan.kind == PassKind::linear) {
    std::printf("The value of the log-likelihood function at iteration %d = %E\n", iteration, loglik);
  } else {
    std::printf("For macro %d/micro iteration %d, the log-likelihood is = %E\n", plan.macro, iteration, loglik);
  }
}

void reporttail(const Progress& progress, bool earlier) {
  for (int dots = 0; dots < 3; ++dots) {
    reportblank(51);
    reportline(".");
  }
  for (int i = 0; earlier && i + 1 < progress.entries; ++i) reportlikelihood(progress.last[i]);
}

// A stop by the rule: the gain of the log-likelihood, as a percentage, lies within 0.0 and stopval. An accelerated step
// can gain that little and yet overshoot, so the gain has to be that of a plain EM step: an Aitken step moves the
// estimates before the log-likelihood of its iteration is taken, a Fisher step after it.
void testconvergence(const Pass& pass, IterationState& state, const Attempt& attempt) {
  constexpr double leastgain = 1.0e-10;
  const bool plain = !attempt.aitkenok && !attempt.fisherok && !state.stepped;
  state.stepped = attempt.fisherok;
  state.confirming = false;
  if (state.iteration == 1) return;
  const Likelihood& likelihood = state.likelihood;
  double gain = 100.0 * (likelihood.current - likelihood.previous) / std::fabs(likelihood.previous);
  if (std::fabs(gain) < leastgain) gain = leastgain;
  if (likelihood.current < likelihood.previous) state.fisherfailures = fisheroff;
  const bool met = 0.0 <= gain && gain <= pass.plan.stopval && state.iteration != state.limit;
  state.converged = met && plain;
  state.confirming = met && !plain;
}

// At the limit a linear run may go on.
void asklimit(const Pass& pass, IterationState& state) {
  if (state.stopped() || pass.plan.farlimit == 0 || state.iteration != pass.plan.limit) return;
  bool goon = run.control.numitcontinue == 1;
  if (run.control.numitcontinue == 2)
    goon = askyesno(
        "\nThe maximum number of iterations has been reached, but the analysis has\nnot converged. Do you want to "
        "continue until convergence?");
  if (!goon) return;
  std::printf("Setting number of iterations to %d.\n\n", pass.plan.farlimit);
  state.limit = pass.plan.farlimit;
}

// A search for the maximum where iterations are slow or would stop below it: at the edge, and in passes of a macro loop
// that creeps. True when it moved the estimates.
bool movetomaximum(Pass& pass, const IterationState& state, double least) {
  const bool linear = pass.plan.kind == PassKind::linear;
  if (state.hetstate == 1 || (!linear && (!state.searching || pass.plan.tausstand()))) return false;
  if (linear && state.converged && (state.iteration < soonestedgesearch || !nearedge(pass))) return false;
  const double gain = searchedge(pass, linear ? least : leastgainwhenslow);
  if (gain == 0.0) return false;
  const std::string line =
      linear ? formatted(
                   "At iteration %d a search along the edge of the parameter space raised the log-likelihood by %.3E",
                   state.iteration, gain)
             : formatted("For macro %d/micro iteration %d, a search raised the log-likelihood by %.3E", pass.plan.macro,
                         state.iteration, gain);
  if (!reportisstdout()) std::printf("%s\n", line.c_str());
  if (linear) reportline("%s", line.c_str());
  return true;
}

void endofiteration(Pass& pass, IterationState& state, const Attempt& attempt, const EmSums& em, Progress& progress) {
  checksignals();
  const int iteration = state.iteration;
  testconvergence(pass, state, attempt);
  if (interrupted() && askinterrupt()) state.keyboardstop = true;
  asklimit(pass, state);
  state.s2 = state.s1;
  state.s1 = run.est.sigma2;
  if (!attempt.fisherok && pass.fixsigma2 == 0.0) run.est.sigma2 = (em.traceacc + em.rss) / run.mdm.nunits1;
  if (state.converged && movetomaximum(pass, state, leastgainatstop)) state.converged = false;

  progress.add(iteration, state.likelihood.current);
  showlikelihood(pass.plan, iteration, state.likelihood.current);
  const bool atlimit = iteration == state.limit;
  if ((atlimit || (run.control.debug == 0 && iteration > 5 && state.stopped())) && run.out.fulloutput)
    reporttail(progress, iteration > 5);
  if (atlimit) state.atlimit = true;
  if (state.stopped()) return;  // the last iteration's results and its log-likelihood come with those of the stage
  if (run.control.debug != 0) return iterationtables(iterationresults(pass, state));
  if ((pass.plan.kind != PassKind::linear || iteration < 6) && run.out.fulloutput)
    reportlikelihood({iteration, state.likelihood.current});
}

}  // namespace

void startiterations(const Pass& pass, IterationState& state) {
  makefisher(pass, state.fisher);
  for (Array<double>* T : {&state.history.T1, &state.history.T2}) T->reset(square(pass.p));
  for (Array<double>* L : {&state.history.L1, &state.history.L2}) L->reset(square(pass.b));
  state.s1 = state.s2 = 0.0;
  state.likelihood = {missingcode, missingcode};
  state.stepped = state.confirming = false;
}

void iterate(Pass& pass, IterationState& state) {
  Progress progress;
  EmSums em;
  state.converged = state.atlimit = state.keyboardstop = false;
  state.nextsearch = state.searching ? firstsearch : firstedgesearch;
  holdinterrupts();
  for (state.iteration = 1; state.iteration <= state.limit; ++state.iteration) {
    if (state.iteration == state.nextsearch) {
      state.nextsearch *= 2;
      movetomaximum(pass, state, leastgainwhenslow);
    }
    const Attempt attempt = updateestimates(pass, state, em);
    endofiteration(pass, state, attempt, em, progress);
    if (state.stopped()) break;
  }
  releaseinterrupts();
  state.ending = state.keyboardstop ? Ending::keyboard : state.atlimit ? Ending::limit : Ending::converged;
}

bool askinterrupt() {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    readanswer("Enter 0 to stop iterating, 1 to exit now", line, Question::interrupt);
    char* end = nullptr;
    const long answer = std::strtol(line.c_str(), &end, 10);
    if (end == line.c_str()) continue;
    if (answer == 1) fail(0);
    if (answer == 0) {
      run.control.laplaceit = run.control.agqit = 0;
      rearminterrupts();
      return true;
    }
  }
  noproperresponse();
}

}  // namespace kdr
