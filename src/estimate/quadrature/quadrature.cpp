#include "estimate/quadrature/quadrature.h"

#include <algorithm>
#include <cmath>

#include "core/formatted.h"
#include "estimate/likelihood/unitthreads.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/distributions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

namespace {

using Kind = EngineEvent::Kind;

constexpr double twopi = 6.2831853;

Adaptation copy(const Adaptation& a) { return {a.vstar.copy(), a.C3.copy(), a.ustar.copy(), a.P.copy()}; }

// What the units of a batch give back, in their order.
struct BatchResults {
  std::size_t P;
  std::vector<EngineFailure> failure;
  Array<double> loglikelihood, score, information;
};

void integratebatch(QuadratureData& data, const QuadraturePoint& point, const Adaptation& adaptation, Adaptation* next,
                    const std::vector<Level3Records>& batch, Halt& halt, BatchResults& results) {
  const std::size_t P = results.P;
  const bool withinformation = next != nullptr && data.derivlevel == 2;
  results.failure.assign(batch.size(), EngineFailure::none);
  results.loglikelihood.reset(batch.size());
  if (next != nullptr) results.score.reset(batch.size() * P);
  if (withinformation) results.information.reset(batch.size() * P * P);
  overplaces(batch.size(), static_cast<int>(data.work.size()), halt, [&](std::size_t i, int worker) {
    UnitMoments moments;
    moments.next = next;
    if (next != nullptr) moments.score = results.score.data() + i * P;
    if (withinformation) moments.information = results.information.data() + i * P * P;
    results.failure[i] = integrateunit(*data.model, point, batch[i], adaptation, data.work[at(worker)],
                                       results.loglikelihood[i], next != nullptr ? &moments : nullptr);
  });
}

// Adds n D'(K (x) K)D to the block of H (order P) from element `first` on: twice the expected second derivatives of n
// densities of a random effect.
void addexpected(double* H, std::size_t P, std::size_t first, int order, const double* K, double n) {
  eachelement(order, [&](int e, int i, int j) {
    eachelement(order, [&](int f, int k, int l) {
      H[(first + at(e)) * P + first + at(f)] += n * duplicatedproduct(K, order, i, j, k, l);
    });
  });
}

// The places of the elements that a diagonal matrix holds at 0.
std::vector<std::size_t> heldelements(const QuadratureSettings& settings, const Parameters& parameters) {
  std::vector<std::size_t> held;
  const auto add = [&held](std::size_t first, int n) {
    for (std::size_t a = 0, pair = first; a < at(n); ++a)
      for (std::size_t b = 0; b <= a; ++b, ++pair)
        if (a != b) held.push_back(pair);
  };
  if (settings.diagonalpi) add(0, parameters.q);
  if (settings.diagonalbeta) add(parameters.ntaupi(), parameters.r);
  return held;
}

// Takes elements that are held at 0 out of score and information: 1 on the diagonal, 0 elsewhere.
void removeheld(const std::vector<std::size_t>& held, std::size_t P, double* g, double* H) {
  for (const std::size_t i : held) {
    g[i] = 0.0;
    for (std::size_t l = 0; l < P; ++l) H[i * P + l] = H[l * P + i] = 0.0;
    H[i * P + i] = 1.0;
  }
}

// The log-likelihood as a function of a point, around the adaptation that stands.
struct QuadratureLikelihood {
  const QuadratureSettings& settings;
  QuadratureData& data;
  QuadratureResult& result;
  int q, r, g;
  std::vector<std::size_t> held;

  Adaptation next{};                            // what the last evaluation with score has found
  Array<double> best{};                         // the point with the highest log-likelihood seen
  EngineFailure failure = EngineFailure::none;  // of the last evaluation

  [[nodiscard]] Parameters at(const Array<double>& point) const { return parametersof(q, r, g, point); }
  [[nodiscard]] double lessconstant(double loglikelihood) const {
    return loglikelihood - 0.5 * data.records * std::log(twopi);
  }
  [[nodiscard]] bool fallen(double now, double before) const { return now < before - settings.noticeable; }

  Evaluation score(const Array<double>& point);
  Evaluation value(const Array<double>& point);
  bool inside(Array<double>& point) const;
  bool settled(const RidgedAscent& ascent);
  [[nodiscard]] bool lowerthanbest();
  [[nodiscard]] bool heldnearzero();
  [[nodiscard]] bool higherwith(std::size_t order, Array<double> Parameters::*tau, Array<double> Adaptation::*scales,
                                const Array<double>& errors);
};

Evaluation QuadratureLikelihood::score(const Array<double>& point) {
  Evaluation there;
  next = copy(result.adaptation);
  QuadratureWalk now = walk(data, at(point), result.adaptation, &next);
  failure = now.failure;
  if (failure != EngineFailure::none) return there;
  removeheld(held, point.size(), now.score.data(), now.information.data());
  there.usable = true;
  there.score = std::move(now.score);
  there.information = std::move(now.information);
  return there;
}

Evaluation QuadratureLikelihood::value(const Array<double>& point) {
  const QuadratureWalk walked = walk(data, at(point), result.adaptation, nullptr);
  failure = walked.failure;
  Evaluation there;
  there.value = lessconstant(walked.loglikelihood);
  there.usable = failure == EngineFailure::none && std::isfinite(there.value);
  return there;
}

bool QuadratureLikelihood::inside(Array<double>& point) const {
  for (const std::size_t i : held) point[i] = 0.0;
  const Parameters parameters = at(point);
  return usablecovariance(parameters.taupi.data(), q) && usablecovariance(parameters.taubeta.data(), r);
}

// The score is small beside the information and the log-likelihood.
bool QuadratureLikelihood::settled(const RidgedAscent& ascent) {
  result.fit.iteration = ascent.iterations;
  result.fit.loglik = ascent.value;
  if (ascent.iterations == 1 || ascent.value > result.highest) {
    result.highest = ascent.value;
    best = ascent.now.copy();
  }
  return countsignificant(static_cast<int>(ascent.now.size()), ascent.value, ascent.H.data(), ascent.at.score.data()) ==
         0;
}

// Whether an earlier iteration ended with better estimates. A log-likelihood that was integrated around the centres of
// other estimates may be too high, so it is taken again around its own.
bool QuadratureLikelihood::lowerthanbest() {
  if (!fallen(result.fit.loglik, result.highest)) return false;
  Adaptation own = copy(result.adaptation);
  const Parameters parameters = at(best);
  if (walk(data, parameters, result.adaptation, &own).failure != EngineFailure::none) return true;
  const QuadratureWalk there = walk(data, parameters, own, nullptr);
  if (there.failure != EngineFailure::none) return true;
  result.highest = lessconstant(there.loglikelihood);
  return fallen(result.fit.loglik, result.highest);
}

// Row and column a of n matrices of order `order` by `factor`, its diagonal element by the square.
void scale(double* matrices, std::size_t n, std::size_t order, std::size_t a, double factor) {
  for (std::size_t i = 0; i < n; ++i, matrices += order * order)
    for (std::size_t b = 0; b < order; ++b) {
      matrices[a * order + b] *= factor;
      matrices[b * order + a] *= factor;
    }
}

bool QuadratureLikelihood::higherwith(std::size_t order, Array<double> Parameters::*tau,
                                      Array<double> Adaptation::*scales, const Array<double>& errors) {
  const double factor = std::sqrt(settings.larger);
  const Parameters& estimates = result.fit.estimates;
  for (std::size_t a = 0; a < order; ++a) {
    const double error = errors[a * order + a];
    if (!((estimates.*tau)[a * order + a] < settings.nearzero * error)) continue;
    Parameters trial = estimates.copy();
    Adaptation around = copy(result.adaptation), own = copy(around);
    scale((trial.*tau).data(), 1, order, a, factor);
    scale((around.*scales).data(), (around.*scales).size() / (order * order), order, a, factor);
    if (walk(data, trial, around, &own).failure != EngineFailure::none) continue;
    const QuadratureWalk there = walk(data, trial, own, nullptr);
    if (there.failure == EngineFailure::none && fallen(result.fit.loglik, lessconstant(there.loglikelihood)))
      return true;
  }
  return false;
}

// Whether the outcomes would be more likely with a variance ten times as large, where one is of the size of its error.
// Near 0 the information is the small difference of large sums: with few points it comes out too large, and the steps
// end short of the maximum.
bool QuadratureLikelihood::heldnearzero() {
  return higherwith(kdr::at(q), &Parameters::taupi, &Adaptation::P, result.fit.setaupi) ||
         higherwith(kdr::at(r), &Parameters::taubeta, &Adaptation::C3, result.fit.setaubeta);
}

RidgedProblem problemof(QuadratureLikelihood& likelihood) {
  const EngineSettings& engine = likelihood.settings.engine;
  RidgedProblem problem;
  problem.evaluate = [&likelihood](const Array<double>& point) { return likelihood.score(point); };
  problem.test = [&likelihood](const Array<double>& point) { return likelihood.value(point); };
  problem.inside = [&likelihood](Array<double>& point) { return likelihood.inside(point); };
  problem.accepted = [&likelihood] { likelihood.result.adaptation = std::move(likelihood.next); };
  problem.settled = [&likelihood](const RidgedAscent& ascent) { return likelihood.settled(ascent); };
  problem.stop = engine.stopasked;
  problem.abandoned = [&likelihood] { return likelihood.failure == EngineFailure::data; };
  problem.tell = [&engine](AscentEvent event, const RidgedAscent& ascent) { tellstep(engine, event, ascent); };
  return problem;
}

// How far the maximum is, in standard errors: by what the last step lacked of a whole Newton step, `inverse` without a
// ridge.
double distanceof(const RidgedAscent& ascent) {
  const std::size_t P = ascent.now.size();
  const double* V = ascent.inverse.data();
  double distance = 0.0;
  for (std::size_t i = 0; i < P; ++i) {
    double lacking = -ascent.step[i];
    for (std::size_t l = 0; l < P; ++l) lacking += V[i * P + l] * ascent.at.score[l];
    if (V[i * P + i] > 0.0) distance = std::max(distance, std::fabs(lacking) / std::sqrt(2.0 * V[i * P + i]));
  }
  return distance;
}

// The covariance of the estimates, 2 V, V the inverse of the information of twice the log-likelihood. Without an
// inverse the fixed effects have no variances; a tau has no standard errors then, nor when one of its free elements has
// none.
void takeerrors(const RidgedAscent& ascent, const std::vector<std::size_t>& held, QuadratureResult& result) {
  EngineResult& fit = result.fit;
  const std::size_t P = ascent.now.size(), n2 = fit.estimates.ntaupi(), taus = n2 + fit.estimates.ntaubeta();
  const bool none = result.inversion == 1;
  fit.covariance = ascent.inverse.copy();
  for (double& v : fit.covariance) v *= 2.0;
  for (const std::size_t i : held) fit.covariance[i * P + i] = 0.0;
  const auto complete = [&](std::size_t first, std::size_t end) {
    for (std::size_t i = first; i < end; ++i)
      if (!(fit.covariance[i * P + i] > 0.0) && std::find(held.begin(), held.end(), i) == held.end()) return false;
    return !none;
  };
  if (none)
    for (std::size_t i = taus; i < P; ++i) fit.covariance[i * P + i] = 0.0;
  takecovariance(fit);
  fit.completepi = complete(0, n2);
  fit.completebeta = complete(n2, taus);
}

void warn(QuadratureLikelihood& likelihood) {
  QuadratureResult& result = likelihood.result;
  std::vector<std::string>& warnings = result.fit.warnings;
  if (likelihood.lowerthanbest()) {
    warnings.emplace_back(
        "WARNING: the log-likelihood of the last iteration is not the highest that was seen. More quadrature points or "
        "other starting values may be needed.");
  } else if (result.fit.converged && likelihood.heldnearzero()) {
    warnings.emplace_back(
        "WARNING: a variance near 0 is not at the maximum: the log-likelihood is higher with ten times as much. More "
        "quadrature points are needed.");
  }
  if (!result.fit.converged) {
    warnings.emplace_back("WARNING: the iterations of quadrature ended before they had converged.");
  } else if (result.distance > likelihood.settings.far) {
    warnings.push_back(formatted(
        "WARNING: the ridge has kept the steps short. The estimates are about %.2f standard errors from the maximum.",
        result.distance));
  }
}

// The results at the end of the iterations.
void finish(QuadratureLikelihood& likelihood, RidgedAscent& ascent) {
  QuadratureResult& result = likelihood.result;
  EngineResult& fit = result.fit;
  // The standard errors take the information without a ridge.
  if (ascent.ridge.value > 0.0) {
    ascent.inverse.reset(ascent.H.size());
    result.inversion =
        invertsymmetric(static_cast<int>(ascent.now.size()), ascent.at.information.data(), ascent.inverse.data())
            .result;
  }
  fit.end = EngineEnd::estimated;
  result.distance = distanceof(ascent);
  takeerrors(ascent, likelihood.held, result);
  fit.marginal = fit.loglik + 0.5 * likelihood.data.records * std::log(twopi) + likelihood.data.combinations;
  tell(likelihood.settings.engine, {Kind::marginal, 0, fit.marginal});
  warn(likelihood);
  fit.farbelow = result.highest - fit.loglik > likelihood.settings.farbelow;
}

// An iteration has failed. A ridge beyond bounds leaves nothing usable, nor does a level-2 centre without a covariance:
// all weight of its integral was on one node, which no estimate should rest on. A step that cannot be taken leaves the
// estimates before it, and so does a level-3 centre once there has been an iteration.
void breakoff(QuadratureLikelihood& likelihood, AscentEnd end, int iterations) {
  QuadratureResult& result = likelihood.result;
  EngineResult& fit = result.fit;
  fit.failure = end == AscentEnd::notdefinite ? EngineFailure::notdefinite
                : end == AscentEnd::nostep    ? EngineFailure::nostep
                                              : likelihood.failure;
  const bool left = end == AscentEnd::nostep || (fit.failure == EngineFailure::centre3 && iterations > 0);
  fit.end = left ? EngineEnd::brokenoff : EngineEnd::failed;
  fit.farbelow = iterations > 0 && likelihood.fallen(fit.loglik, result.highest);
  if (fit.farbelow)
    fit.warnings.emplace_back(
        "WARNING: the estimates that quadrature has left have a lower log-likelihood than those of an earlier "
        "iteration.");
  tell(likelihood.settings.engine, {Kind::problem, 0, 0.0, fit.failure});
}

}  // namespace

bool countdata(QuadratureData& data) {
  data.records = data.units2 = data.units3 = data.counts = data.combinations = 0.0;
  const Family outcome = data.model->outcome;
  data.source->rewind(data.source->state);
  for (;;) {
    const std::vector<Level3Records>& batch = data.source->next(data.source->state);
    if (batch.empty()) return !brokensource(*data.source);
    for (const Level3Records& unit : batch) {
      const std::size_t records = unit.start[at(unit.units)];
      data.records += static_cast<double>(records);
      data.units2 += unit.units;
      data.units3 += 1.0;
      for (std::size_t i = 0; i < records; ++i) {
        if (outcome == Family::binomial && !unit.n.empty()) data.combinations += logcombinations(unit.n[i], unit.y[i]);
        if (outcome == Family::poisson) data.counts -= logfactorial(unit.y[i]);
      }
    }
  }
}

QuadratureWalk walk(QuadratureData& data, const Parameters& parameters, const Adaptation& adaptation,
                    Adaptation* next) {
  const std::size_t P = parameters.count();
  QuadratureWalk sums;
  QuadraturePoint point;
  if (!makepoint(point, parameters)) {
    sums.failure = EngineFailure::centre2;
    return sums;
  }
  sums.loglikelihood = data.counts;
  if (next != nullptr) {
    sums.score.reset(P);
    sums.information.reset(P * P);
  }
  if (data.work.empty()) data.work.resize(at(std::max(data.threads, 1)));
  BatchResults results{P, {}, {}, {}, {}};
  Halt halt(givingup(*data.source));
  data.source->rewind(data.source->state);
  for (;;) {
    const std::vector<Level3Records>& batch = data.source->next(data.source->state);
    if (!batch.empty()) integratebatch(data, point, adaptation, next, batch, halt, results);
    if (brokensource(*data.source)) {
      sums.failure = EngineFailure::data;
      return sums;
    }
    if (batch.empty()) break;
    for (std::size_t k = 0; k < batch.size(); ++k) {
      if (results.failure[k] != EngineFailure::none) {
        sums.failure = results.failure[k];
        return sums;
      }
      sums.loglikelihood += results.loglikelihood[k];
      if (next == nullptr) continue;
      const double* score = results.score.data() + k * P;
      for (std::size_t i = 0; i < P; ++i) sums.score[i] += score[i];
      for (std::size_t i = 0; i < P; ++i)
        for (std::size_t l = 0; l < P; ++l)
          sums.information[i * P + l] +=
              data.derivlevel == 2 ? results.information[(k * P + i) * P + l] : 0.5 * score[i] * score[l];
    }
  }
  if (next != nullptr && data.derivlevel == 2) {
    addexpected(sums.information.data(), P, 0, parameters.q, point.Kp.data(), data.units2);
    addexpected(sums.information.data(), P, parameters.ntaupi(), parameters.r, point.Kb.data(), data.units3);
  }
  return sums;
}

QuadratureResult adaptivequadrature(const EngineData& data, const QuadratureSettings& settings, const Parameters& start,
                                    const Adaptation& adaptation) {
  QuadratureResult result;
  result.fit.estimates = start.copy();
  result.adaptation = copy(adaptation);
  const auto fail = [&](EngineFailure failure) {
    result.fit.failure = failure;
    tell(settings.engine, {Kind::problem, 0, 0.0, failure});
    return std::move(result);
  };
  tell(settings.engine, {Kind::begun});
  const int effects = std::max(start.q, start.r);
  if (effects > mosteffects || std::pow(settings.points, effects) > settings.mostnodes)
    return fail(EngineFailure::toomanyeffects);
  QuadratureModel model{data.family, data.npi, data.nbeta, start.q, start.r, start.g, data.design, {}, {}};
  if (!makegrid(model.grid2, settings.points, start.q) || !makegrid(model.grid3, settings.points, start.r))
    return fail(EngineFailure::nodes);
  QuadratureData walked;
  walked.model = &model;
  walked.source = &data.source;
  walked.threads = settings.engine.threads;
  walked.derivlevel = settings.derivlevel;
  if (!countdata(walked)) return fail(EngineFailure::data);

  QuadratureLikelihood likelihood{settings, walked, result, start.q, start.r, start.g, heldelements(settings, start)};
  const RidgedProblem problem = problemof(likelihood);
  RidgedAscent ascent{settings.ascent, problem, elementsof(start)};
  for (const std::size_t i : likelihood.held) ascent.now[i] = 0.0;
  const AscentEnd end = climb(ascent, std::max(settings.engine.iterations, 1));
  result.fit.estimates = likelihood.at(ascent.now);
  result.fit.converged = end == AscentEnd::converged;
  result.fit.stopped = ascent.stopped;
  if (result.fit.converged || end == AscentEnd::limit || end == AscentEnd::stopped) {
    finish(likelihood, ascent);
  } else {
    breakoff(likelihood, end, ascent.iterations);
  }
  return result;
}

}  // namespace kdr
