#include "estimate/linear/edgesearch.h"

#include <cmath>

#include "estimate/linear/emstep.h"
#include "estimate/linear/fisher.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr double firstbarrier = 0.1, lastbarrier = 1.0e-5;
constexpr int maxsteps = 30;     // for one height of the barrier
constexpr int maxhalvings = 30;  // of one step

// The log-likelihood at the variance components at hand, with the fixed effects that are best there, and the
// log-determinants of the taus. Those effects are left in pass.est.
struct Height {
  bool known = false;
  double loglik = 0.0, logdets = 0.0;
  [[nodiscard]] double with(double barrier) const { return loglik + barrier * logdets; }
};

Height height(Pass& pass) {
  Height result;
  Array<double> S, Sb;
  double logdetT = 0.0, logdetL = 0.0;
  if (!usableestimates(pass) || scaleinverse(pass.est.taupi.data(), pass.p, pass.est.sigma2, S, logdetT) != 0 ||
      scaleinverse(pass.est.taubeta.data(), pass.b, pass.est.sigma2, Sb, logdetL) != 0)
    return result;
  for (const bool last : {false, true}) {  // the fixed effects, then the log-likelihood at them
    PosteriorSums sums;
    const PosteriorInput input{pass.est.sigma2, pass.est.gammahat.data(), S.data(), Sb.data(), nullptr, false};
    if (posteriorsweep(pass, input, sums) != PosteriorResult::ok) return result;
    if (last) result.loglik = loglikelihood(pass, sums, pass.mdm().nunits2 * logdetT, pass.mdm().nunits3 * logdetL);
    if (!last && !glsupdate(pass, sums)) return result;
  }
  result.logdets = logdetT + logdetL;
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

// The scoring step at the estimates at hand, and the rise that it promises; negative when there is none.
double scoringstep(Pass& pass, FisherWork& fisher, double barrier, Array<double>& step) {
  if (!fisherpoint(pass, fisher)) return -1.0;
  addbarrier(fisher, 0, pass.est.taupi, pass.p, barrier);
  addbarrier(fisher, static_cast<int>(packedsize(pass.p)), pass.est.taubeta, pass.b, barrier);
  if (!invertinformation(fisher, false)) return -1.0;
  step = scoringdirection(fisher);
  double rise = 0.0;
  for (std::size_t i = 0; i < step.size(); ++i) rise += step[i] * fisher.score[i];
  return rise;
}

// Climbs to the maximum behind a barrier. False when it got no further.
bool climb(Pass& pass, FisherWork& fisher, double barrier, Height& now) {
  Array<double> step;
  for (int steps = 0; steps < maxsteps && !pass.observer().wantsstop(); ++steps) {
    const double rise = scoringstep(pass, fisher, barrier, step);
    if (rise < 0.0) return false;
    if (rise < 0.1 * barrier) return true;
    const Estimates start = pass.est.copy();
    Height next;
    double factor = 1.0;
    int halvings = 0;
    for (; halvings < maxhalvings; ++halvings, factor *= 0.5) {
      moveestimates(pass, start, step, factor);
      next = height(pass);
      if (next.known && next.with(barrier) >= now.with(barrier) + 1.0e-4 * factor * rise) break;
      pass.est.gammahat = start.gammahat.copy();
    }
    if (halvings == maxhalvings) {
      pass.est = start.copy();
      return false;
    }
    now = next;
  }
  return true;
}

}  // namespace

bool nearedge(Pass& pass) {
  FisherWork fisher;
  sizefisher(pass, fisher);
  Array<double> step;
  if (fisher.restriction.nfree == 0) return false;
  return scoringstep(pass, fisher, 0.0, step) < 0.0 || !stepstays(pass, step, 1.0);
}

double searchedge(Pass& pass, double least) {
  Estimates before = pass.est.copy();
  FisherWork fisher;
  sizefisher(pass, fisher);
  const Height start = height(pass);
  if (start.known && fisher.restriction.nfree > 0) {
    Height now = start;
    for (double barrier = firstbarrier; barrier > 0.5 * lastbarrier; barrier *= 0.1)
      if (!climb(pass, fisher, barrier, now)) break;
    if (now.loglik > start.loglik + least) return now.loglik - start.loglik;
  }
  pass.est = std::move(before);
  return 0.0;
}

}  // namespace kdr
