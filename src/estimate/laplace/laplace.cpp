#include "estimate/laplace/laplace.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/linear/usable.h"
#include "estimate/quasi/macrotest.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

const double logtwopi = std::log(6.2831853);

void say(const char* words) {
  std::printf("%s", words);
  std::fflush(stdout);
}

void asktostop(const LaplaceSettings& settings, LaplaceState& state) {
  if (settings.stopasked == nullptr || !settings.stopasked()) return;
  state.left = 0;
  state.stopped = true;
}

std::vector<ScoreWork> scorework(const LaplaceData& data, const LaplaceSettings& settings, const LaplaceState& state) {
  std::vector<ScoreWork> work;
  for (int i = 0; i < std::max(settings.threads, 1); ++i) work.push_back(makescorework(data, state.now.q, state.now.r));
  return work;
}

// Score, information and reliabilities at the modes, summed in the order of the units.
void walkscores(const LaplaceData& data, const LaplaceSettings& settings, const TauInverses& inverses,
                LaplaceState& state) {
  const std::size_t P = state.now.count(), q = at(state.now.q), r = at(state.now.r);
  const std::size_t width = P + q + r;  // score, shares in the reliabilities of levels 2 and 3
  std::vector<ScoreWork> work = scorework(data, settings, state);
  Array<double> rows(at(data.units3) * width);
  std::vector<UnitReliability> counts(at(data.units3));
  std::vector<char> defined(at(data.units3));
  overunits(data.source, settings.threads, [&](const Level3Records& unit, int worker) {
    double* row = rows.data() + at(unit.k) * width;
    counts[at(unit.k)] = {row + P, row + P + q};
    defined[at(unit.k)] =
        unitscore(data, state.now, inverses, state.modes, unit, work[at(worker)], row, counts[at(unit.k)]);
  });

  state.score.reset(P);
  state.information.reset(P * P);
  state.rel2.reset(q);
  state.rel3.reset(r);
  state.nrel2 = state.nrel3 = 0;
  for (std::size_t k = 0; k < at(data.units3); ++k) {
    const double* s = rows.data() + k * width;
    for (std::size_t i = 0; i < P; ++i) {
      state.score[i] += s[i];
      for (std::size_t l = 0; l <= i; ++l) state.information[i * P + l] += s[i] * s[l];
    }
    for (std::size_t a = 0; a < q; ++a) state.rel2[a] += s[P + a];
    for (std::size_t a = 0; a < r; ++a) state.rel3[a] += s[P + q + a];
    state.nrel2 += counts[k].count2;
    state.nrel3 += counts[k].count3;
  }
  mirror(static_cast<int>(P), state.information.data());
  for (double& sum : state.rel2) sum = state.nrel2 > 0 ? sum / state.nrel2 : 0.0;
  for (double& sum : state.rel3) sum = state.nrel3 > 0 ? sum / state.nrel3 : 0.0;
  if (std::find(defined.begin(), defined.end(), 0) != defined.end())
    say("The Laplace6 likelihood is not defined at these values: the step is that of the first-order Laplace\n");
}

// inverse := information^-1. An information that is singular to working accuracy, as with fewer level-3 units than
// parameters, has no inverse, though rounding may leave it a determinant other than 0.
bool invertinformation(LaplaceState& state) {
  const std::size_t P = state.score.size();
  const int order = static_cast<int>(P);
  Array<double> scaled(P * P);
  const auto deviation = [&](std::size_t i) { return std::sqrt(state.information[i * P + i]); };
  for (std::size_t i = 0; i < P; ++i)
    for (std::size_t l = 0; l < P; ++l)
      scaled[i * P + l] = state.information[i * P + l] / (deviation(i) * deviation(l));
  state.inverse.reset(P * P);
  return ispositivedefinite(order, scaled.data(), order, nullptr) &&
         invertsymmetric(order, state.information.data(), state.inverse.data()).result == 0;
}

bool usabletaus(Parameters& parameters) {
  return usablecovariance(parameters.taupi.data(), parameters.q) &&
         usablecovariance(parameters.taubeta.data(), parameters.r);
}

constexpr double firstridge = 0.01;

void raiseridge(LaplaceState& state) {
  say("*");
  state.ridge.raise(firstridge);
}

LaplaceStep scoringstep(const LaplaceData& data, const LaplaceSettings& settings, LaplaceState& state, bool final) {
  const std::size_t P = state.now.count();
  const double ridgeatentry = state.ridge.value;
  const Array<double> u = state.modes.u.copy(), v = state.modes.v.copy();
  Array<double> delta(P);
  for (;;) {
    if (!final && !state.ridge.addto(state.information.data(), P)) {
      std::printf("Unable to invert H in Laplace\n");
      return LaplaceStep::notinverted;
    }
    if (!invertinformation(state)) {
      if (final) return LaplaceStep::notinverted;
      raiseridge(state);
      continue;
    }
    if (final) return LaplaceStep::done;

    mulAB(delta.data(), state.inverse.data(), state.score.data(), static_cast<int>(P), 1, static_cast<int>(P));
    if (!trialstep(state.now, delta.data(), usabletaus, nullptr)) return LaplaceStep::outside;
    double loglik = 0.0;
    const bool defined = laplace6loglikelihood(data, settings, state, loglik);
    if (defined && (state.iteration <= 2 || loglik >= state.loglik)) {
      if (state.ridge.value > 0.0 && state.ridge.value == ridgeatentry) {
        state.ridge.value /= 10.0;
        say("/");
      }
      state.loglik = loglik;
      return LaplaceStep::done;
    }
    raiseridge(state);
    state.now = state.previous.copy();
    state.modes.u = u.copy();
    state.modes.v = v.copy();
  }
}

}  // namespace

bool laplace6loglikelihood(const LaplaceData& data, const LaplaceSettings& settings, LaplaceState& state,
                           double& loglik) {
  TauInverses inverses;
  ModeSums modes;
  if (!invertaus(state.now, inverses)) return false;
  if (findmodes(data, settings, state.now, inverses, ".", state.modes, modes) != ModeResult::found) return false;
  asktostop(settings, state);

  std::vector<ScoreWork> work = scorework(data, settings, state);
  std::vector<UnitLikelihood> units(at(data.units3));
  overunits(data.source, settings.threads, [&](const Level3Records& unit, int worker) {
    units[at(unit.k)] = unitlikelihood(data, state.now, state.modes, unit, work[at(worker)]);
  });
  double records = 0.0, corrections = 0.0;
  for (const UnitLikelihood& unit : units) {
    if (!(1.0 - unit.S > 0.0)) return false;
    records += unit.loglik;
    corrections += std::log(1.0 - unit.S);
  }
  loglik = -0.5 * (data.units3 * inverses.logTb + static_cast<double>(data.units2) * inverses.logTp + modes.logH2 +
                   modes.logH3 - 2.0 * records + modes.uKu + modes.vKv - 2.0 * corrections) -
           0.5 * static_cast<double>(data.records) * logtwopi;
  return std::isfinite(loglik);
}

LaplaceStep laplace6iterate(const LaplaceData& data, const LaplaceSettings& settings, LaplaceState& state, bool final) {
  TauInverses inverses;
  ModeSums modes;
  if (!invertaus(state.now, inverses)) return LaplaceStep::notinverted;
  if (findmodes(data, settings, state.now, inverses, ">", state.modes, modes) != ModeResult::found)
    return LaplaceStep::notinverted;
  asktostop(settings, state);
  walkscores(data, settings, inverses, state);
  state.previous = state.now.copy();
  const LaplaceStep step = scoringstep(data, settings, state, final);
  if (step != LaplaceStep::done || final) return step;
  std::printf("The likelihood at Laplace iteration %d is %E\n", state.iteration, state.loglik);
  ++state.iteration;
  asktostop(settings, state);
  return step;
}

namespace {

LaplaceResult resultof(LaplaceState& state, bool finalcall) {
  LaplaceResult result;
  const std::size_t P = state.now.count(), n2 = state.now.ntaupi(), n3 = state.now.ntaubeta();
  const double* V = state.inverse.data();
  result.end = LaplaceEnd::estimated;
  result.iteration = finalcall ? state.iteration : state.iteration - 1;
  result.finalcall = finalcall;
  result.loglik = state.loglik;
  result.taucovariance = diagonalblock(V, P, 0, n2 + n3, 1.0);
  result.vgamma = diagonalblock(V, P, n2 + n3, at(state.now.g), 1.0);
  standarderrormatrix(V, P, 0, state.now.q, 1.0, result.setaupi);
  standarderrormatrix(V, P, n2, state.now.r, 1.0, result.setaubeta);
  result.inverse = state.inverse.copy();
  result.rel2 = std::move(state.rel2);
  result.rel3 = std::move(state.rel3);
  result.nrel2 = state.nrel2;
  result.nrel3 = state.nrel3;
  return result;
}

}  // namespace

LaplaceResult runlaplace(const LaplaceData& data, const LaplaceSettings& settings, const Parameters& start,
                         const Array<double>& u, const Array<double>& v, double quasilikelihood) {
  LaplaceState state;
  state.now = start.copy();
  startmodes(data, start.q, start.r, u, v, state.modes);
  state.loglik = quasilikelihood;
  state.left = settings.laplaceit;
  say("\n");

  LaplaceStep step = LaplaceStep::done;
  bool converged = false;
  while (step == LaplaceStep::done && !converged && state.left-- >= 1) {
    const double ridge = state.ridge.value;
    step = laplace6iterate(data, settings, state, false);
    converged = step == LaplaceStep::done && state.ridge.value <= ridge &&
                macrotest(state.now, state.previous, settings.stopmacro);
  }
  if (step == LaplaceStep::done && !converged && !state.stopped && state.iteration > 1)
    say("The Laplace6 iterations were stopped at their limit, before the estimates had settled\n");
  const bool finalcall = step == LaplaceStep::done && state.ridge.value != -1.0;
  if (finalcall) {
    state.ridge.value = -1.0;
    step = laplace6iterate(data, settings, state, true);
  }
  LaplaceResult result;
  if (step == LaplaceStep::done) {
    if (state.iteration > 1) {
      result = resultof(state, finalcall);
      result.converged = converged;
    } else {
      result.end = LaplaceEnd::noiterations;
      result.loglik = quasilikelihood;
    }
  }
  result.estimates = step == LaplaceStep::done ? state.now.copy() : start.copy();
  result.u = std::move(state.modes.u);
  result.v = std::move(state.modes.v);
  return result;
}

}  // namespace kdr
