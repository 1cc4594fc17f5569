#include "estimate/linear/restrictedfit.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "estimate/ascent/conescoring.h"
#include "estimate/inference/teststatistics.h"
#include "estimate/linear/marginalsurface.h"
#include "estimate/linear/point.h"
#include "estimate/linear/restriction.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

// The climb under way.
struct Climb {
  Pass& pass;
  IterationState& state;
  MarginalSurface surface;
  bool told = true;
  bool abandoned = false;

  // An iteration's line comes with the next one, or as the last.
  void tell(bool last) {
    if (told) return;
    told = true;
    const bool atlimit = last && state.iteration == state.limit;
    tellobserver(pass.observer().iteration, IterationEvent{pass.plan.kind, pass.plan.macro, state.iteration,
                                                           state.likelihood.current, atlimit, last});
  }
  Evaluation evaluate(const Array<double>& point) {
    Evaluation evaluation = surface.evaluate(point);
    if (!evaluation.usable) return evaluation;
    tell(false);
    told = false;
    ++state.iteration;
    state.likelihood = {state.likelihood.current, evaluation.value};
    return evaluation;
  }
  bool stop() {
    abandoned = abandoned || pass.observer().givesup();
    state.keyboardstop = state.keyboardstop || (!abandoned && pass.observer().stops());
    return abandoned || state.keyboardstop;
  }
};

// Sets a tau that has nothing left at the maximum, but for rounding, to 0.
void clearnothing(int order, int lacking, Array<double>& tau) {
  if (lacking == order) tau.fill(0.0);
}

// The point beside a maximum at the edge whose taus are none that are singular: as far off it as `lift` says, or less.
Estimates besideedge(const Pass& pass, const MarginalSums& sums, const Estimates& est, const Array<double>& point,
                     const Array<double>& lift) {
  if (lift.empty()) return est.copy();
  constexpr int tries = 4;
  double factor = 1.0;
  for (int t = 0; t < tries; ++t, factor *= 0.5) {
    Array<double> lifted = point.copy();
    for (std::size_t i = 0; i < lifted.size(); ++i) lifted[i] += factor * lift[i];
    Estimates beside = estimatesat(sums, lifted, est);
    if (usableestimates(pass, beside)) return beside;
  }
  return est.copy();
}

// At the limit a run may go on.
bool goeson(const Pass& pass, IterationState& state) {
  if (pass.plan.farlimit == 0 || state.limit != pass.plan.limit) return false;
  const Observer& observer = pass.observer();
  const AtLimit code = pass.control().numitcontinue;
  if (code != AtLimit::goon && !(code == AtLimit::ask && observer.goon && observer.goon())) return false;
  tellobserver(observer.limitraised, pass.plan.farlimit);
  state.limit = pass.plan.farlimit;
  return true;
}

}  // namespace

std::string smallsampleobstacle(const Model& model, const Control& control) {
  const bool degrees = control.ddf != DegreesMethod::counts;
  if (!control.restricted && !degrees && !control.clusterrobust && !control.profile) return "";
  const std::string what = control.restricted      ? "LIKELIHOOD:REML"
                           : degrees               ? "DDF:"
                           : control.clusterrobust ? "ROBUST:CR2"
                                                   : "PROFILE:";
  if (!model.outcome.linear()) return what + " is for linear models only.";
  if (model.weighted) return what + " cannot be combined with design weights.";
  if (control.hetit != 0) return what + " cannot be combined with HETIT:.";
  if (control.ddf == DegreesMethod::kenwardroger && !control.restricted)
    return "DDF:KENWARDROGER is for the restricted likelihood: add LIKELIHOOD:REML.";
  return "";
}

Failure iteraterestricted(Pass& pass, IterationState& state) {
  if (Failure failure = makemarginalsums(pass, state.marginal.sums)) return failure;
  state.converged = state.atlimit = state.keyboardstop = false;
  state.iteration = 0;
  tellobserver(pass.observer().stagebegins);
  MarginalSums& sums = state.marginal.sums;
  const Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  Climb climb{pass, state, {sums, Criterion::restricted, restriction, pass.est.copy()}};
  ConeProblem problem;
  problem.orders = {pass.p, pass.b};
  problem.free = restriction.free.copy();
  problem.nfree = restriction.nfree;
  problem.evaluate = [&](const Array<double>& point) { return climb.evaluate(point); };
  problem.test = [&](const Array<double>& point) {
    const MarginalValue& value = climb.surface.look(point).value;
    Evaluation evaluation;
    evaluation.usable = value.known;
    evaluation.value = value.restricted;
    return evaluation;
  };
  problem.stop = [&] { return climb.stop(); };
  ConePolicy policy;
  Array<double> point = variancepoint(sums, pass.est);
  ConeResult result;
  for (;;) {
    policy.iterations = state.limit - state.iteration - 1;
    result = climbcone(problem, policy, point);
    if (state.marginal.sums.failure()) return state.marginal.sums.failure();
    if (storefailure(pass.store)) return storefailure(pass.store);
    if (climb.abandoned) return failed(abandoned);
    if (result.end != AscentEnd::limit || !goeson(pass, state)) break;
    point = result.point.copy();
    --state.iteration;  // its point is evaluated again
    climb.told = true;
  }
  if (result.end == AscentEnd::unusable) return failed(15);
  state.converged = result.end == AscentEnd::converged;
  state.atlimit = !state.converged && !state.keyboardstop;
  state.ending = state.keyboardstop ? Ending::keyboard : state.atlimit ? Ending::limit : Ending::converged;
  climb.tell(true);
  tellobserver(pass.observer().stageends);

  Estimates est = estimatesat(sums, result.point, climb.surface.now);
  clearnothing(pass.p, result.lacking[0], est.taupi);
  clearnothing(pass.b, result.lacking[1], est.taubeta);
  const MarginalValue& value = climb.surface.look(variancepoint(sums, est)).value;
  if (!value.known) return failed(11);
  est.gammahat = value.gamma.copy();
  est.vgamma = value.covariance.copy();
  for (double& v : est.vgamma) v /= est.sigma2;
  state.likelihood.current = value.restricted;
  state.marginal.value = std::move(climb.surface.latest.value);
  state.marginal.decrement = result.decrement;
  state.marginal.lacking = result.lacking;
  pass.est = besideedge(pass, sums, est, result.point, result.lift);
  state.marginal.est = std::move(est);
  return {};
}

namespace {

// Linear functions of the m free parameters that stand still where a tau (order n, its elements from `first` on) is
// singular: N'dT N for its null space N. A direction counts as singular below `nothing` standard errors.
void addheld(const Restriction& restriction, const Array<double>& own, const double* T, int n, std::size_t first,
             std::vector<Array<double>>& rows) {
  constexpr double nothing = 2.0e-3;
  Array<double> d(at(n)), scaled(square(n)), values(at(n)), Q(square(n));
  for (int i = 0; i < n; ++i) {
    const double information = own[first + packedsize(i) + at(i)];
    if (!(information > 0.0)) return;
    d[i] = 1.0 / std::sqrt(std::sqrt(information));
  }
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) scaled[i * n + j] = T[i * n + j] / (d[i] * d[j]);
  spectrum(at(n), scaled.data(), values.data(), Q.data());
  int lacking = 0;
  while (lacking < n && values[lacking] <= nothing) ++lacking;
  for (int r = 0; r < lacking; ++r)
    for (int c = 0; c <= r; ++c) {
      Array<double> row(at(restriction.nfree));
      eachelement(n, [&](int e, int i, int j) {
        const int free = restriction.free[first + at(e)];
        if (free < 0) return;
        double x = Q[i * n + r] * Q[j * n + c];
        if (i != j) x += Q[j * n + r] * Q[i * n + c];
        row[free] += x / (d[i] * d[j]);
      });
      rows.push_back(std::move(row));
    }
}

// B (m by k, k returned): an orthonormal basis of what the rows leave, in coordinates that are `scale` times smaller.
std::size_t freebasis(const std::vector<Array<double>>& rows, const Array<double>& scale, Array<double>& B) {
  constexpr double nothing = 1.0e-8;
  const std::size_t m = scale.size();
  Array<double> G(m * m), values(m), Q(m * m);
  for (const Array<double>& row : rows) {
    double length = 0.0;
    for (std::size_t a = 0; a < m; ++a) length += row[a] * row[a] * scale[a] * scale[a];
    if (!(length > 0.0)) continue;
    for (std::size_t a = 0; a < m; ++a)
      for (std::size_t c = 0; c < m; ++c) G[a * m + c] += row[a] * scale[a] * row[c] * scale[c] / length;
  }
  spectrum(m, G.data(), values.data(), Q.data());
  std::size_t k = 0;
  while (k < m && values[k] <= nothing) ++k;
  B.reset(m * k);
  for (std::size_t a = 0; a < m; ++a)
    for (std::size_t c = 0; c < k; ++c) B[a * k + c] = Q[a * m + c];
  return k;
}

// W = B (B'I B)^-1 B' (m squared) over the directions that the rows leave.
bool invertalong(std::size_t m, const Array<double>& I, const std::vector<Array<double>>& rows, Array<double>& W) {
  if (rows.empty()) return invertatunitdiagonal(m, I.data(), W);
  W.reset(m * m);
  Array<double> scale(m), B, scaled(m * m), inverse;
  for (std::size_t a = 0; a < m; ++a) {
    if (!(I[a * m + a] > 0.0)) return false;
    scale[a] = 1.0 / std::sqrt(I[a * m + a]);
  }
  for (std::size_t a = 0; a < m; ++a)
    for (std::size_t c = 0; c < m; ++c) scaled[a * m + c] = I[a * m + c] * scale[a] * scale[c];
  const std::size_t k = freebasis(rows, scale, B);
  if (k == 0) return true;
  const int mi = static_cast<int>(m), ki = static_cast<int>(k);
  Array<double> half(m * k), inner(k * k);
  mulAB(half.data(), scaled.data(), B.data(), mi, ki, mi);
  mulAtB(inner.data(), B.data(), half.data(), ki, ki, mi);
  if (!invertatunitdiagonal(k, inner.data(), inverse)) return false;
  mulAB(half.data(), B.data(), inverse.data(), mi, ki, ki);
  mulABt(W.data(), half.data(), B.data(), mi, mi, ki);
  for (std::size_t a = 0; a < m; ++a)
    for (std::size_t c = 0; c < m; ++c) W[a * m + c] *= scale[a] * scale[c];
  return true;
}

}  // namespace

std::optional<VarianceInformation> varianceinformation(Pass& pass, MarginalSums& sums, const Estimates& est,
                                                       const MarginalValue& value) {
  const int NT = variancecount(pass);
  const Control& control = pass.control();
  const Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  if (!value.known) return {};
  MarginalDerivatives made = marginalderivatives(
      sums, est, value, pass.plan.restricted ? Criterion::restricted : Criterion::full, Derivatives::all);
  VarianceInformation known;
  known.own.reset(at(NT));
  for (int i = 0; i < NT; ++i) known.own[i] = made.expected[i * NT + i];
  if (control.ddfobserved)
    for (std::size_t i = 0; i < made.expected.size(); ++i) made.expected[i] = 2.0 * made.average[i] - made.expected[i];
  std::vector<Array<double>> held;
  if (!control.edgefull) {
    addheld(restriction, known.own, est.taupi.data(), pass.p, 0, held);
    addheld(restriction, known.own, est.taubeta.data(), pass.b, packedsize(pass.p), held);
  }
  const std::size_t m = at(restriction.nfree);
  Array<double> I(m * m), W(m * m);
  reduceinformation(restriction, made.expected.data(), NT, I.data());
  if (m > 0 && !invertalong(m, I, held, W)) return {};
  known.fixed = {pass.g, NT, value.covariance.copy(), std::move(made.P), std::move(made.Q), Array<double>(square(NT))};
  expandinverse(restriction, W.data(), known.fixed.W.data(), NT);
  return known;
}

TauErrors tauerrors(const Pass& pass, const VarianceInformation& known) {
  const int NT = known.fixed.NT;
  const Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  Array<double> W = known.fixed.W.copy();
  TauErrors errors;
  errors.asked = errors.known = true;
  errors.order = NT - 1;
  errors.covariance.reset(square(errors.order));
  for (int i = 0; i < errors.order; ++i)
    std::copy_n(W.data() + at(i * NT), errors.order, errors.covariance.data() + at(i * errors.order));
  // An element that the edge holds has no standard error, where one that the model holds has one of 0.
  constexpr double held = 1.0e-8;
  for (int i = 0; i < NT; ++i)
    if (restriction.free[i] >= 0 && W[i * (NT + 1)] * known.own[i] < held) W[i * (NT + 1)] = -1.0;
  errors.taupi = standarderrors(W, NT, 0, pass.p);
  errors.taubeta = standarderrors(W, NT, packedsize(pass.p), pass.b);
  errors.sigma2variance = std::max(W[square(NT) - 1], 0.0);
  errors.sigma2 = std::sqrt(errors.sigma2variance);
  return errors;
}

}  // namespace kdr
