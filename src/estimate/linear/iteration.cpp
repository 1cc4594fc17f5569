#include "estimate/linear/iteration.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "estimate/linear/edgesearch.h"
#include "estimate/linear/emstep.h"
#include "estimate/linear/fixtau.h"
#include "estimate/linear/results.h"
#include "estimate/linear/startingvalues.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr int maxfisherfailures = 4;

// Estimates as they stood before an accelerated step.
struct SavedEstimates {
  double sigma2;
  Array<double> taupi, taubeta, gamma;
};

SavedEstimates saveestimates(const Pass& pass) {
  return {pass.est.sigma2, pass.est.taupi.copy(), pass.est.taubeta.copy(), pass.est.gammahat.copy()};
}

void restoretaus(Pass& pass, const SavedEstimates& saved) {
  pass.est.taupi = saved.taupi.copy();
  pass.est.taubeta = saved.taubeta.copy();
  if (pass.fixsigma2 == 0.0) pass.est.sigma2 = saved.sigma2;
}

// What an iteration number went through; the loop may go round the same number more than once.
struct Attempt {
  bool fisherok = false;  // a Fisher step stands
  bool aitkenok = false;  // an extrapolation stands
  int noaccel = 0;        // no accelerated step any more
};

enum class Step { stands, continuewithem, retry };

Step tryaitken(Pass& pass, IterationState& state, Attempt& attempt, const SavedEstimates& saved) {
  double& s = pass.est.sigma2;
  const bool fixed = pass.fixsigma2 != 0.0;
  double lambda = fixed ? 0.0 : (s - state.s1) / (state.s1 - state.s2);
  if (!aitkenstep(pass, lambda, state.history)) {
    attempt.noaccel = 1;
    return Step::retry;
  }
  if (!fixed) s = state.s1 + (s - state.s1) / (1.0 - lambda);
  applyheld(pass.model(), Tau::pi, pass.est);
  applyheld(pass.model(), Tau::beta, pass.est);
  if (usableestimates(pass, pass.est)) {
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
    if (pass.fixsigma2 == 0.0) pass.est.sigma2 += d[NT - 1];
    if (!pass.plan.tausstand) {
      addtriangle(pass.est.taupi.data(), pass.p, d.data(), 1.0);
      applyheld(pass.model(), Tau::pi, pass.est);
      addtriangle(pass.est.taubeta.data(), pass.b, d.data() + nt, 1.0);
      applyheld(pass.model(), Tau::beta, pass.est);
    }
    if (usableestimates(pass, pass.est)) {
      if (t < tries) return Step::stands;
      break;
    }
    const bool badpi = !invertible(pass.est.taupi, pass.p);
    const bool badbeta = !invertible(pass.est.taubeta, pass.b);
    const bool badsigma2 = !(pass.est.sigma2 > 0.0);
    restoretaus(pass, saved);
    if (badpi) halve(0, nt);
    if (badbeta) halve(nt, NT - 1);
    if (badsigma2) halve(NT - 1, NT);
  }
  attempt = {false, false, 1};
  state.likelihood.current = state.likelihood.previous;
  ++state.fisherfailures;
  pass.est.gammahat = saved.gamma.copy();
  return Step::retry;
}

Step tryfisher(Pass& pass, IterationState& state, Attempt& attempt, const SavedEstimates& saved) {
  if (!fisherstep(pass, state.fisher, state.likelihood, Scoring::steps)) {
    ++state.fisherfailures;
    return Step::continuewithem;
  }
  attempt.fisherok = true;
  return tryfishersteps(pass, state, attempt, saved);
}

void shifthistories(const Pass& pass, IterationState& state) {
  TauHistory& history = state.history;
  history.T2 = std::move(history.T1);
  history.T1 = pass.est.taupi.copy();
  history.L2 = std::move(history.L1);
  history.L1 = pass.est.taubeta.copy();
}

// The work of one iteration number: one EM step or an accelerated one, as often as it takes.
Failure updateestimates(Pass& pass, IterationState& state, EmSums& em, Attempt& attempt) {
  for (;;) {
    if (pass.plan.tausstand) ++attempt.noaccel;
    const bool accelerate = state.iteration % pass.control().accel == 0 && attempt.noaccel == 0 &&
                            state.stage == Stage::ordinary && !state.confirming;
    Step step = Step::continuewithem;
    SavedEstimates saved{};
    if (accelerate) {
      saved = saveestimates(pass);
      const bool aitken = pass.control().fishertype == FisherType::none || state.scoringover ||
                          state.fisherfailures >= maxfisherfailures;
      step = aitken ? tryaitken(pass, state, attempt, saved) : tryfisher(pass, state, attempt, saved);
      if (step == Step::retry) continue;
    } else {
      shifthistories(pass, state);
    }
    if (step == Step::continuewithem)
      if (Failure failure =
              emstep(pass, state.likelihood, em, state.stage == Stage::heterogeneous ? &state.hettaupi : nullptr))
        return failure;
    if ((attempt.aitkenok || attempt.fisherok) && state.likelihood.current < state.likelihood.previous) {
      ++attempt.noaccel;
      attempt.aitkenok = attempt.fisherok = false;
      ++state.fisherfailures;
      state.likelihood.current = state.likelihood.previous;
      restoretaus(pass, saved);
      pass.est.gammahat = saved.gamma.copy();
      continue;
    }
    return {};
  }
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
  if (likelihood.current < likelihood.previous) state.scoringover = true;
  const bool met = 0.0 <= gain && gain <= pass.plan.stopval && state.iteration != state.limit;
  state.converged = (met && plain) || (state.attop && state.iteration != state.limit);
  state.confirming = met && !state.converged;
}

// At the limit a linear run may go on.
void asklimit(const Pass& pass, IterationState& state) {
  if (state.stopped() || pass.plan.farlimit == 0 || state.iteration != pass.plan.limit) return;
  const Observer& observer = pass.observer();
  const AtLimit code = pass.control().numitcontinue;
  if (code != AtLimit::goon && !(code == AtLimit::ask && observer.goon && observer.goon())) return;
  tellobserver(observer.limitraised, pass.plan.farlimit);
  state.limit = pass.plan.farlimit;
}

// A search for the maximum, if the plan asks for one here. True when it moved the estimates.
// Behind a repaired start the end at the edge may be the lower one of two hills: there another start is tried, once.
bool movetomaximum(Pass& pass, IterationState& state, double least) {
  const bool atedge = pass.plan.searching == Searching::atedge, stops = atedge && state.converged;
  if (state.stage == Stage::heterogeneous || pass.plan.searching == Searching::never) return false;
  if (!atedge) least = leastgainofpass(state.likelihood.current);
  state.lost = false;
  if (stops && ((state.iteration < soonestedgesearch && !pass.repaired) || !nearedge(pass))) return false;
  EdgeSearch found = searchedge(pass, pass.est, least);
  state.lost = found.failed;
  state.attop = atedge && !stops && !found.failed && found.gain == 0.0 && nearedge(pass);
  if (stops && found.gain == 0.0 && pass.repaired && !found.failure) {
    pass.repaired = false;
    if (std::optional<Estimates> other = sharedstart(pass)) found = searchedge(pass, *other, least);
  }
  if ((state.failure = std::move(found.failure)) || found.gain == 0.0) return false;
  pass.est = std::move(found.est);
  if (found.gain > leastgainwhenslow)
    tellobserver(pass.observer().searched, SearchEvent{pass.plan.kind, pass.plan.macro, state.iteration, found.gain});
  return true;
}

void endofiteration(Pass& pass, IterationState& state, const Attempt& attempt, const EmSums& em) {
  const Observer& observer = pass.observer();
  const int iteration = state.iteration;
  testconvergence(pass, state, attempt);
  if (observer.stops()) state.keyboardstop = true;
  asklimit(pass, state);
  state.s2 = state.s1;
  state.s1 = pass.est.sigma2;
  if (!attempt.fisherok && pass.fixsigma2 == 0.0) pass.est.sigma2 = (em.traceacc + em.rss) / pass.nunits1;
  if (state.converged && movetomaximum(pass, state, leastgainatstop)) state.converged = false;

  const bool atlimit = iteration == state.limit;
  const bool last = atlimit || state.stopped();
  tellobserver(observer.iteration,
               IterationEvent{pass.plan.kind, pass.plan.macro, iteration, state.likelihood.current, atlimit, last});
  if (atlimit) state.atlimit = true;
  if (last) return;  // the last iteration's results and its log-likelihood come with those of the stage
  if (pass.control().debug != 0 && observer.iterationresults) observer.iterationresults(iterationresults(pass, state));
}

}  // namespace

void startiterations(const Pass& pass, IterationState& state) {
  makefisher(pass, state.fisher);
  for (Array<double>* T : {&state.history.T1, &state.history.T2}) T->reset(square(pass.p));
  for (Array<double>* L : {&state.history.L1, &state.history.L2}) L->reset(square(pass.b));
  state.s1 = state.s2 = 0.0;
  state.fisherfailures = 0;
  state.scoringover = false;
  state.likelihood = {absent, absent};
  state.stepped = state.confirming = false;
}

Failure iterate(Pass& pass, IterationState& state) {
  EmSums em;
  state.converged = state.atlimit = state.keyboardstop = state.lost = false;
  state.nextsearch = pass.plan.searching == Searching::always ? firstsearch : firstedgesearch;
  tellobserver(pass.observer().stagebegins);
  for (state.iteration = 1; state.iteration <= state.limit; ++state.iteration) {
    state.attop = false;
    if (state.iteration == state.nextsearch) {
      state.nextsearch *= 2;
      movetomaximum(pass, state, leastgainwhenslow);
    }
    Attempt attempt;
    Failure failure = updateestimates(pass, state, em, attempt);
    if (storefailure(pass.store)) return storefailure(pass.store);  // which may be why the step failed
    if (failure) return failure;
    if (pass.observer().givesup()) return failed(abandoned);
    endofiteration(pass, state, attempt, em);
    if (state.failure) return std::move(state.failure);
    if (state.stopped()) break;
  }
  tellobserver(pass.observer().stageends);
  state.ending = state.keyboardstop ? Ending::keyboard
                 : state.atlimit    ? Ending::limit
                 : state.lost       ? Ending::lost
                                    : Ending::converged;
  return {};
}

}  // namespace kdr
