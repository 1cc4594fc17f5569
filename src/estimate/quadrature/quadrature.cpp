#include "estimate/quadrature/quadrature.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/distributions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr int mosteffects = 10;
constexpr double mostnodes = 1.0e6;  // of one integral: beyond, neither memory nor time would do
constexpr double firstridge = 0.1;
constexpr double twopi = 6.2831853;
// A fall of the log-likelihood that is more than rounding and more than what another centring does.
constexpr double noticeable = 1.0e-3;
// Farther than this from the maximum, in standard errors, the estimates come with a warning.
constexpr double far = 0.02;

bool fallen(double now, double before) { return now < before - noticeable; }

void tell(const QuadratureSettings& settings, const char* text) {
  if (settings.console != nullptr) settings.console(text);
}

[[gnu::format(printf, 2, 3)]] void tellline(const QuadratureSettings& settings, const char* format, ...) {
  char line[200];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  tell(settings, line);
}

Adaptation copy(const Adaptation& a) { return {a.vstar.copy(), a.C3.copy(), a.ustar.copy(), a.P.copy()}; }

// What the units of a batch give back, in their order.
struct BatchResults {
  std::size_t P;
  std::vector<UnitStatus> status;
  Array<double> loglikelihood, score, information;
};

void integratebatch(QuadratureData& data, const QuadraturePoint& point, const Adaptation& adaptation, Adaptation* next,
                    const std::vector<Level3Records>& batch, BatchResults& results) {
  const std::size_t P = results.P;
  const bool withinformation = next != nullptr && data.derivlevel == 2;
  results.status.assign(batch.size(), UnitStatus::fine);
  results.loglikelihood.reset(batch.size());
  if (next != nullptr) results.score.reset(batch.size() * P);
  if (withinformation) results.information.reset(batch.size() * P * P);
  overbatch(batch, static_cast<int>(data.work.size()), [&](std::size_t i, int worker) {
    UnitMoments moments;
    moments.next = next;
    if (next != nullptr) moments.score = results.score.data() + i * P;
    if (withinformation) moments.information = results.information.data() + i * P * P;
    results.status[i] = integrateunit(*data.model, point, batch[i], adaptation, data.work[at(worker)],
                                      results.loglikelihood[i], next != nullptr ? &moments : nullptr);
  });
}

// Adds 2 wt wt' (K_ac K_bd + K_ad K_bc) n to the block of H (order P) from element `first` on: the expected second
// derivatives of n densities of a random effect.
void addexpected(double* H, std::size_t P, std::size_t first, std::size_t order, const double* K, double n) {
  std::size_t row = first;
  for (std::size_t a = 0; a < order; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++row) {
      std::size_t column = first;
      for (std::size_t c = 0; c < order; ++c)
        for (std::size_t d = 0; d <= c; ++d, ++column) {
          const double weight = (a == b ? 0.5 : 1.0) * (c == d ? 0.5 : 1.0);
          H[row * P + column] +=
              2.0 * weight * n * (K[a * order + c] * K[b * order + d] + K[a * order + d] * K[b * order + c]);
        }
    }
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

double logcombinations(double n, double y) {
  return std::lgamma(n + 1.0) - std::lgamma(y + 1.0) - std::lgamma(n - y + 1.0);
}

// The iterations.
struct Iterations {
  const QuadratureSettings& settings;
  QuadratureData& data;
  QuadratureResult& result;
  std::size_t P;
  std::vector<std::size_t> held;

  Ridge ridge{};
  double previous = missingcode;  // the log-likelihood of the iteration before
  bool halvenext = false;
  Parameters best{};  // those with the highest log-likelihood seen
  Array<double> H{}, V{}, delta{};

  QuadratureFailure iterate(int& left);
  QuadratureFailure invert(const QuadratureWalk& at);
  QuadratureFailure step(const QuadratureWalk& at, double& loglikelihood);
  Inversion invertonce() {
    V.reset(P * P);
    return invertsymmetric(static_cast<int>(P), H.data(), V.data());
  }
  [[nodiscard]] bool lowerthanbest();
  [[nodiscard]] bool heldnearzero();
  void finish(const QuadratureWalk& last);
};

// V := the inverse of H and its ridge, which grows until there is one. A negative pivot is no inverse to step with: the
// step would lead away from the maximum.
QuadratureFailure Iterations::invert(const QuadratureWalk& now) {
  H = now.information.copy();
  for (;;) {
    if (!ridge.addto(H.data(), P)) return QuadratureFailure::ridge;
    if (const Inversion inversion = invertonce(); inversion.result == 0 && !inversion.negative) break;
    tell(settings, "*");
    ridge.raise(firstridge);
  }
  if (ridge.value > settings.leastridge) {
    tell(settings, "/");
    ridge.value /= 10.0;
  }
  return QuadratureFailure::none;
}

QuadratureFailure Iterations::step(const QuadratureWalk& now, double& loglikelihood) {
  delta.reset(P);
  mulAB(delta.data(), V.data(), now.score.data(), static_cast<int>(P), 1, static_cast<int>(P));
  if (previous == missingcode || halvenext)
    for (double& d : delta) d *= 0.5;
  if (halvenext) tell(settings, "The log-likelihood has fallen: the step is halved\n");
  halvenext = false;
  const auto usable = [&](Parameters& trial) {
    if (settings.diagonalpi) cleardiagonaloff(trial.taupi.data(), trial.q);
    if (settings.diagonalbeta) cleardiagonaloff(trial.taubeta.data(), trial.r);
    if (!usablecovariance(trial.taupi.data(), trial.q) || !usablecovariance(trial.taubeta.data(), trial.r))
      return false;
    const QuadratureWalk there = walk(data, trial, result.adaptation, nullptr);
    loglikelihood = there.loglikelihood - 0.5 * data.records * std::log(twopi);
    return there.status == UnitStatus::fine && std::isfinite(loglikelihood);
  };
  return trialstep(result.parameters, delta.data(), usable, [&] { tell(settings, "h"); }) ? QuadratureFailure::none
                                                                                          : QuadratureFailure::step;
}

// One iteration; `left` is how many there may be, this one counted, and 0 behind the last.
QuadratureFailure Iterations::iterate(int& left) {
  Adaptation next = copy(result.adaptation);
  QuadratureWalk now = walk(data, result.parameters, result.adaptation, &next);
  if (now.status == UnitStatus::badC3) return QuadratureFailure::centre3;
  if (now.status == UnitStatus::badP) return QuadratureFailure::centre2;
  removeheld(held, P, now.score.data(), now.information.data());
  if (const QuadratureFailure failure = invert(now); failure != QuadratureFailure::none) return failure;
  double loglikelihood = missingcode;
  if (const QuadratureFailure failure = step(now, loglikelihood); failure != QuadratureFailure::none) return failure;

  result.adaptation = std::move(next);
  result.iteration += 1;
  tellline(settings, "The value of the log-likelihood function at AGQ iteration %d = %E\n", result.iteration,
           loglikelihood);
  result.loglikelihood = loglikelihood;
  if (result.iteration == 1 || loglikelihood > result.highest) {
    result.highest = loglikelihood;
    best = result.parameters.copy();
  }
  if (countsignificant(static_cast<int>(P), loglikelihood, H.data(), now.score.data()) == 0) result.converged = true;
  result.code = 1;
  left = std::max(left - 1, 0);
  if (settings.interrupted != nullptr && settings.interrupted()) left = 0;
  if (result.converged) left = 0;
  halvenext = previous != missingcode && fallen(loglikelihood, previous);
  previous = loglikelihood;
  if (left == 0) {
    // The standard errors take the information without a ridge.
    if (ridge.value != -1.0) {
      H = now.information.copy();
      result.inversion = invertonce().result;
    }
    finish(now);
  }
  return QuadratureFailure::none;
}

// Whether an earlier iteration ended with better estimates. A log-likelihood that was integrated around the centres of
// other estimates may be too high, so it is taken again around its own.
bool Iterations::lowerthanbest() {
  if (!fallen(result.loglikelihood, result.highest)) return false;
  Adaptation own = copy(result.adaptation);
  if (walk(data, best, result.adaptation, &own).status != UnitStatus::fine) return true;
  const QuadratureWalk there = walk(data, best, own, nullptr);
  if (there.status != UnitStatus::fine) return true;
  result.highest = there.loglikelihood - 0.5 * data.records * std::log(twopi);
  return fallen(result.loglikelihood, result.highest);
}

// Row and column a of n matrices of order `order` by `factor`, its diagonal element by the square.
void scale(double* matrices, std::size_t n, std::size_t order, std::size_t a, double factor) {
  for (std::size_t i = 0; i < n; ++i, matrices += order * order)
    for (std::size_t b = 0; b < order; ++b) {
      matrices[a * order + b] *= factor;
      matrices[b * order + a] *= factor;
    }
}

// Whether the outcomes would be more likely with a variance ten times as large, where one is of the size of its error.
// Near 0 the information is the small difference of large sums: with few points it comes out too large, and the steps
// end short of the maximum.
bool Iterations::heldnearzero() {
  const double factor = std::sqrt(10.0);
  const auto higher = [&](std::size_t order, Array<double> Parameters::*tau, Array<double> Adaptation::*scales,
                          const Array<double>& errors) {
    for (std::size_t a = 0; a < order; ++a) {
      const double error = errors[a * order + a];
      if (!((result.parameters.*tau)[a * order + a] < 2.0 * error)) continue;
      Parameters trial = result.parameters.copy();
      Adaptation around = copy(result.adaptation), own = copy(around);
      scale((trial.*tau).data(), 1, order, a, factor);
      scale((around.*scales).data(), (around.*scales).size() / (order * order), order, a, factor);
      if (walk(data, trial, around, &own).status != UnitStatus::fine) continue;
      const QuadratureWalk there = walk(data, trial, own, nullptr);
      if (there.status == UnitStatus::fine &&
          fallen(result.loglikelihood, there.loglikelihood - 0.5 * data.records * std::log(twopi)))
        return true;
    }
    return false;
  };
  return higher(at(result.parameters.q), &Parameters::taupi, &Adaptation::P, result.taupise) ||
         higher(at(result.parameters.r), &Parameters::taubeta, &Adaptation::C3, result.taubetase);
}

void Iterations::finish(const QuadratureWalk& last) {
  const Parameters& estimates = result.parameters;
  const std::size_t taus = estimates.ntaupi() + estimates.ntaubeta();
  for (std::size_t i = 0; i < P; ++i) {
    double lacking = -delta[i];
    for (std::size_t l = 0; l < P; ++l) lacking += V[i * P + l] * last.score[l];
    if (V[i * P + i] > 0.0)
      result.distance = std::max(result.distance, std::fabs(lacking) / std::sqrt(2.0 * V[i * P + i]));
  }
  for (const std::size_t i : held) V[i * P + i] = 0.0;
  const auto counted = [&](std::size_t first, std::size_t end, int bad) {  // without elements that are held at 0
    return bad - static_cast<int>(
                     std::count_if(held.begin(), held.end(), [&](std::size_t i) { return i >= first && i < end; }));
  };
  const int bad2 = standarderrormatrix(V.data(), P, 0, estimates.q, 2.0, result.taupise);
  const int bad3 = standarderrormatrix(V.data(), P, estimates.ntaupi(), estimates.r, 2.0, result.taubetase);
  result.taupiseusable = counted(0, estimates.ntaupi(), bad2) == 0 && result.inversion != 1;
  result.taubetaseusable = counted(estimates.ntaupi(), taus, bad3) == 0 && result.inversion != 1;
  if (result.inversion == 1)
    for (std::size_t i = taus; i < P; ++i) V[i * P + i] = 0.0;
  result.vgamma = diagonalblock(V.data(), P, taus, at(estimates.g), 2.0);
  result.vtau = diagonalblock(V.data(), P, 0, taus, 2.0);
  result.V = std::move(V);
  result.finished = true;
  result.marginal = result.loglikelihood + 0.5 * data.records * std::log(twopi) + data.combinations;
  tellline(settings, "The marginal log-likelihood = %E\n", result.marginal);
  if (lowerthanbest()) {
    result.warnings.emplace_back(
        "WARNING: the log-likelihood of the last iteration is not the highest that was seen. More quadrature points or "
        "other starting values may be needed.");
  } else if (result.converged && heldnearzero()) {
    result.warnings.emplace_back(
        "WARNING: a variance near 0 is not at the maximum: the log-likelihood is higher with ten times as much. More "
        "quadrature points are needed.");
  }
  if (!result.converged) {
    result.warnings.emplace_back("WARNING: the iterations of quadrature ended before they had converged.");
  } else if (result.distance > far) {
    char line[200];
    std::snprintf(line, sizeof line,
                  "WARNING: the ridge has kept the steps short. The estimates are about %.2f standard errors from the "
                  "maximum.",
                  result.distance);
    result.warnings.emplace_back(line);
  }
}

}  // namespace

const char* failureline(QuadratureFailure failure) {
  switch (failure) {
    case QuadratureFailure::none:
      return "";
    case QuadratureFailure::toomanyeffects:
      return "There are too many random effects for AGQ!";
    case QuadratureFailure::nodes:
      return "Too many iterations in gauher!";
    case QuadratureFailure::centre3:
      return "Unable to compute AGQ T(hat)(beta)";
    case QuadratureFailure::centre2:
      return "Unable to compute AGQ T(hat)(pi)";
    case QuadratureFailure::ridge:
      return "Unable to compute adaptive Gaussian Hessian";
    case QuadratureFailure::step:
      return "Unable to compute adaptive Gaussian Tau";
  }
  return "";
}

void countdata(QuadratureData& data) {
  data.records = data.units2 = data.units3 = data.counts = data.combinations = 0.0;
  const Family outcome = data.model->outcome;
  data.source->rewind(data.source->state);
  std::vector<Level3Records> batch;
  for (;;) {
    data.source->next(data.source->state, batch);
    if (batch.empty()) return;
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
    sums.status = UnitStatus::badP;
    return sums;
  }
  sums.loglikelihood = data.counts;
  if (next != nullptr) {
    sums.score.reset(P);
    sums.information.reset(P * P);
  }
  if (data.work.empty()) data.work.resize(at(std::max(data.threads, 1)));
  BatchResults results{P, {}, {}, {}, {}};
  std::vector<Level3Records> batch;
  data.source->rewind(data.source->state);
  for (;;) {
    data.source->next(data.source->state, batch);
    if (batch.empty()) break;
    integratebatch(data, point, adaptation, next, batch, results);
    for (std::size_t k = 0; k < batch.size(); ++k) {
      if (results.status[k] != UnitStatus::fine) {
        sums.status = results.status[k];
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
    addexpected(sums.information.data(), P, 0, at(parameters.q), point.Kp.data(), data.units2);
    addexpected(sums.information.data(), P, parameters.ntaupi(), at(parameters.r), point.Kb.data(), data.units3);
  }
  return sums;
}

QuadratureResult adaptivequadrature(const QuadratureSettings& settings, int npi, int nbeta, const Design& design,
                                    RecordSource& source, const Parameters& start, const Adaptation& adaptation) {
  QuadratureResult result;
  result.parameters = start.copy();
  result.adaptation = copy(adaptation);
  const auto fail = [&](QuadratureFailure failure) {
    result.failure = failure;
    if (failure != QuadratureFailure::nodes) tellline(settings, "%s\n", failureline(failure));
    return std::move(result);
  };
  const int effects = std::max(start.q, start.r);
  if (effects > mosteffects || std::pow(settings.points, effects) > mostnodes)
    return fail(QuadratureFailure::toomanyeffects);
  QuadratureModel model{settings.outcome, npi, nbeta, start.q, start.r, start.g, &design, {}, {}};
  if (!makegrid(model.grid2, settings.points, start.q) || !makegrid(model.grid3, settings.points, start.r))
    return fail(QuadratureFailure::nodes);
  QuadratureData data;
  data.model = &model;
  data.source = &source;
  data.threads = settings.threads;
  data.derivlevel = settings.derivlevel;
  countdata(data);
  if (settings.diagonalpi) cleardiagonaloff(result.parameters.taupi.data(), start.q);
  if (settings.diagonalbeta) cleardiagonaloff(result.parameters.taubeta.data(), start.r);

  const std::size_t P = start.count();
  Iterations iterations{settings, data, result, P, heldelements(settings, start)};
  int left = std::max(settings.iterations, 1);
  while (left > 0)
    if (const QuadratureFailure failure = iterations.iterate(left); failure != QuadratureFailure::none) {
      // A ridge beyond bounds leaves nothing usable, nor does a level-2 centre without a covariance: all weight of its
      // integral was on one node, which no estimate should rest on. A step that cannot be taken leaves the estimates
      // before it.
      if (failure == QuadratureFailure::ridge || failure == QuadratureFailure::centre2) result.code = 0;
      if (failure == QuadratureFailure::step) result.code = 1;
      if (result.iteration > 0 && fallen(result.loglikelihood, result.highest))
        result.warnings.emplace_back(
            "WARNING: the estimates that quadrature has left have a lower log-likelihood than those of an earlier "
            "iteration.");
      return fail(failure);
    }
  return result;
}

}  // namespace kdr
