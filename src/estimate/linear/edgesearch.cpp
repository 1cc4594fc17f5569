#include "estimate/linear/edgesearch.h"

#include <cmath>
#include <utility>

#include "estimate/linear/fisher.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr double firstbarrier = 0.1, lastbarrier = 1.0e-5;
constexpr int maxsteps = 30;     // for one height of the barrier
constexpr int maxhalvings = 30;  // of one step

// The log-likelihood at the variance components of a point, with the fixed effects that are best there, and the
// log-determinants of the taus.
struct Height {
  bool known = false;
  double loglik = 0.0, logdets = 0.0;
  [[nodiscard]] double with(double barrier) const { return loglik + barrier * logdets; }
};

// Gives the point those fixed effects.
Height height(Pass& pass, Estimates& point) {
  Height result;
  ScaledInverses inverses;
  if (!usableestimates(pass, point) || !scaleinverses(pass, point, inverses)) return result;
  for (const bool last : {false, true}) {  // the fixed effects, then the log-likelihood at them
    PosteriorSums sums;
    if (posteriorsweep(pass, inputat(point, inverses, false), sums) != PosteriorResult::ok) return result;
    if (last) result.loglik = loglikelihood(pass, sums, point.sigma2, inverses);
    if (!last && !glsupdate(pass, sums, point)) return result;
  }
  result.logdets = inverses.logdetT + inverses.logdetL;
  result.known = std::isfinite(result.loglik) && std::isfinite(result.logdets);
  return result;
}

// Adds the derivatives of barrier log det t to the score, and those of its first derivatives, with the sign of an
// information, to the information; t's elements begin at `first`.
void addbarrier(FisherWork& fisher, int first, const Array<double>& t, int n, double barrier) {
  Array<double> inverse(square(n));
  [[maybe_unused]] const Inversion inversion = invertsymmetric(n, t.data(), inverse.data());  // usable, so it exists
  const auto at2 = [&](int i, int j) { return inverse[i * n + j]; };
  eachelement(n, [&](int x, int i, int j) {
    fisher.score[first + x] += barrier * (i == j ? 1.0 : 2.0) * at2(i, j);
    eachelement(n, [&](int y, int k, int l) {
      const double copies = (i == j ? 1.0 : 2.0) * (k == l ? 1.0 : 2.0);
      fisher.information[(first + x) * fisher.NT + first + y] +=
          0.5 * barrier * copies * (at2(i, k) * at2(j, l) + at2(i, l) * at2(j, k));
    });
  });
}

// The scoring step at a point, and the rise that it promises; negative when there is none.
double scoringstep(Pass& pass, const Estimates& point, FisherWork& fisher, double barrier, Array<double>& step) {
  if (!fisherpoint(pass, point, fisher)) return -1.0;
  addbarrier(fisher, 0, point.taupi, pass.p, barrier);
  addbarrier(fisher, static_cast<int>(packedsize(pass.p)), point.taubeta, pass.b, barrier);
  if (!invertinformation(fisher, false)) return -1.0;
  step = scoringdirection(fisher);
  double rise = 0.0;
  for (std::size_t i = 0; i < step.size(); ++i) rise += step[i] * fisher.score[i];
  return rise;
}

// Climbs to the maximum behind a barrier. False when it got no further.
bool climb(Pass& pass, FisherWork& fisher, double barrier, Estimates& point, Height& now) {
  Array<double> step;
  for (int steps = 0; steps < maxsteps && !pass.observer().wantsstop(); ++steps) {
    const double rise = scoringstep(pass, point, fisher, barrier, step);
    if (rise < 0.0) return false;
    if (rise < 0.1 * barrier) return true;
    double factor = 1.0;
    for (int halvings = 0;; ++halvings, factor *= 0.5) {
      if (halvings == maxhalvings) return false;
      Estimates next = moved(pass, point, step, factor);
      const Height there = height(pass, next);
      if (!there.known || there.with(barrier) < now.with(barrier) + 1.0e-4 * factor * rise) continue;
      point = std::move(next);
      now = there;
      break;
    }
  }
  return true;
}

}  // namespace

bool nearedge(Pass& pass) {
  FisherWork fisher;
  sizefisher(pass, fisher);
  Array<double> step;
  if (fisher.restriction.nfree == 0) return false;
  return scoringstep(pass, pass.est, fisher, 0.0, step) < 0.0 || !stepstays(pass, pass.est, step, 1.0);
}

HigherPoint searchedge(Pass& pass, double least) {
  HigherPoint found;
  FisherWork fisher;
  sizefisher(pass, fisher);
  Estimates point = pass.est.copy();
  const Height start = height(pass, point);
  if (!start.known || fisher.restriction.nfree == 0) return found;
  Height now = start;
  for (double barrier = firstbarrier; barrier > 0.5 * lastbarrier; barrier *= 0.1)
    if (!climb(pass, fisher, barrier, point, now)) break;
  if (now.loglik > start.loglik + least) found = {now.loglik - start.loglik, std::move(point)};
  return found;
}

}  // namespace kdr
