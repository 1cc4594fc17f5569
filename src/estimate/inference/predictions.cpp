#include "estimate/inference/predictions.h"

#include <algorithm>
#include <cmath>
#include <functional>

#include "estimate/inference/responsecurve.h"
#include "estimate/inference/smallsample.h"
#include "estimate/quasi/family.h"
#include "kernel/distributions.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

Array<double> fixedpredictors(const FittedModel& fitted, const PredictorRows& rows) {
  const PredictorPlan& plan = fitted.plan;
  Array<double> eta(at(plan.M));
  mulAB(eta.data(), rows.x.data(), fitted.results.est.gammahat.data(), plan.M, 1, plan.g);
  for (double& value : eta) value += rows.offset;
  return eta;
}

namespace {

std::size_t parametersof(const PredictorPlan& plan) { return packedsize(plan.p) + packedsize(plan.b) + at(plan.g); }

Responses emptyresponses(const PredictorPlan& plan, int K) {
  Responses made;
  made.value.reset(at(K));
  made.gradient.reset(at(K) * parametersof(plan));
  return made;
}

// The derivatives by the fixed effects, through dmu_k/deta_m, into the row of response k; `X` is M by g.
void addfixed(const PredictorPlan& plan, const double* first, const Array<double>& X, double* gradient) {
  double* gamma = gradient + packedsize(plan.p) + packedsize(plan.b);
  for (int m = 0; m < plan.M; ++m)
    for (int i = 0; i < plan.g; ++i) gamma[i] += first[m] * X[at(m * plan.g + i)];
}

// Half the second derivatives times dS_mn/dtau, Z (M by n) the rows of tau's effects.
void addvariances(int M, const double* second, const Array<double>& Z, int n, double* gradient) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j, ++gradient)
      for (int m = 0; m < M; ++m)
        for (int l = 0; l < M; ++l) {
          const double own = Z[at(m * n + i)] * Z[at(l * n + j)], other = Z[at(m * n + j)] * Z[at(l * n + i)];
          *gradient += 0.5 * second[m * M + l] * (i == j ? own : own + other);
        }
}

// S = d T d' + e L e', M by M.
Array<double> spreadof(const FittedModel& fitted, const PredictorRows& rows) {
  const PredictorPlan& plan = fitted.plan;
  Array<double> S(square(plan.M));
  const auto add = [&](const Array<double>& Z, const Array<double>& T, int n) {
    if (n == 0) return;
    Array<double> half(at(plan.M) * at(n));
    mulAB(half.data(), Z.data(), T.data(), plan.M, n, n);
    addABt(S.data(), half.data(), Z.data(), plan.M, plan.M, n);
  };
  add(rows.d, fitted.results.est.taupi, plan.p);
  add(rows.e, fitted.results.est.taubeta, plan.b);
  return S;
}

Responses responsesof(const FittedModel& fitted, const PredictorRows& rows, const ResponseCurve& curve, bool average) {
  const PredictorPlan& plan = fitted.plan;
  Responses made = emptyresponses(plan, curve.K);
  const std::size_t P = parametersof(plan), M = at(plan.M);
  for (std::size_t k = 0; k < at(curve.K); ++k) {
    made.value[k] = curve.mean[k];
    double* gradient = made.gradient.data() + k * P;
    addfixed(plan, curve.first.data() + k * M, rows.x, gradient);
    if (!average) continue;
    const double* second = curve.second.data() + k * M * M;
    addvariances(plan.M, second, rows.d, plan.p, gradient);
    addvariances(plan.M, second, rows.e, plan.b, gradient + packedsize(plan.p));
  }
  return made;
}

// The rows of a unit's predictors: Z = (d e), M by p + b, and X + Z J, M by g.
void unitrows(const PredictorPlan& plan, const PredictorRows& rows, const KnownEffects& of, Array<double>& Z,
              Array<double>& X) {
  const int n = plan.p + plan.b;
  Z.reset(at(plan.M) * at(n));
  for (int m = 0; m < plan.M; ++m) {
    std::copy_n(rows.d.data() + m * plan.p, plan.p, Z.data() + m * n);
    std::copy_n(rows.e.data() + m * plan.b, plan.b, Z.data() + m * n + plan.p);
  }
  X = rows.x.copy();
  addAB(X.data(), Z.data(), of.jacobian.data(), plan.M, plan.g, n);
}

// Through F (K by M): value K, gradient, and the variance that the random effects bring.
Responses throughunit(const FittedModel& fitted, const PredictorRows& rows, const KnownEffects& of, int K,
                      const std::function<void(const double* eta, double* value, double* F)>& curve) {
  const PredictorPlan& plan = fitted.plan;
  const int n = plan.p + plan.b;
  Responses made = emptyresponses(plan, K);
  Array<double> Z, X, eta = fixedpredictors(fitted, rows), F(at(K) * at(plan.M)), FZ(at(K) * at(n)),
                      half(at(K) * at(n));
  unitrows(plan, rows, of, Z, X);
  addAB(eta.data(), Z.data(), of.mean.data(), plan.M, 1, n);
  curve(eta.data(), made.value.data(), F.data());
  for (int k = 0; k < K; ++k)
    addfixed(plan, F.data() + k * plan.M, X, made.gradient.data() + at(k) * parametersof(plan));
  mulAB(FZ.data(), F.data(), Z.data(), K, n, plan.M);
  mulAB(half.data(), FZ.data(), of.covariance.data(), K, n, n);
  made.spread.reset(square(K));
  mulABt(made.spread.data(), half.data(), FZ.data(), K, K, n);
  return made;
}

// The fewest degrees of freedom of the effects in a combination; with DDF: those of the combination.
double degreesof(const FittedModel& fitted, const double* l) {
  const PassResults& results = fitted.results;
  const FixedDegrees& degrees = results.degrees;
  if (results.uncertainty && degrees.method != DegreesMethod::counts) {
    if (degrees.method == DegreesMethod::kenwardroger)
      if (const ScaledTest test = kenwardroger(*results.uncertainty, l, 1); test.known) return test.df;
    return satterthwaite(*results.uncertainty, l);
  }
  double fewest = INFINITY;
  for (int i = 0; i < fitted.plan.g; ++i)
    if (l[i] != 0.0) fewest = std::min(fewest, degrees.df[at(i)]);
  return fewest;
}

double quadratic(const double* l, const Array<double>& V, std::size_t n) {
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) sum += l[i] * V[i * n + j] * l[j];
  return sum;
}

Interval intervalof(double value, double reach, IntervalScale scale) {
  if (!std::isfinite(reach)) return {};
  if (scale == IntervalScale::logit && value > 0.0 && value < 1.0) {
    const double logit = std::log(value) - std::log1p(-value), part = reach / (value * (1.0 - value));
    return {true, logitmean(logit - part).mu, logitmean(logit + part).mu};
  }
  if (scale == IntervalScale::log && value > 0.0) {
    const double factor = std::exp(reach / value);
    return {true, value / factor, value * factor};
  }
  return {true, value - reach, value + reach};
}

}  // namespace

PredictorPlan predictorplan(const Model& model) {
  PredictorPlan plan;
  plan.rows = modelrows(model);
  plan.reduced = reducedeffects(plan.rows);
  const Outcome& outcome = model.outcome;
  plan.M = outcome.categorical() ? outcome.categories - 1 : 1;
  plan.p = randomatlevel2(plan.rows);
  plan.b = randomatlevel3(plan.rows);
  for (const int effect : plan.reduced) plan.g = std::max(plan.g, effect + 1);
  int threshold = 0;
  for (const CoefficientRow& own : plan.rows.coefficients)
    plan.response.push_back(outcome.family == Family::multinomial ? own.set : own.threshold ? ++threshold : -1);
  return plan;
}

bool makerows(const PredictorPlan& plan, const double* level1, const double* level2, const double* level3,
              PredictorRows& rows) {
  rows.x.reset(at(plan.M) * at(plan.g));
  rows.d.reset(at(plan.M) * at(plan.p));
  rows.e.reset(at(plan.M) * at(plan.b));
  bool whole = true;
  const auto value = [&](const double* values, int variable) {
    if (variable == 0) return 1.0;
    whole = whole && values[variable] != missingcode;
    return values[variable];
  };
  const auto put = [&](int response, Array<double>& to, int width, int column, double entry) {
    for (int m = 0; m < plan.M; ++m)
      if (response < 0 || response == m) to[at(m * width + column)] += entry;
  };
  int random2 = 0, random3 = 0;
  for (std::size_t c = 0; c < plan.rows.coefficients.size(); ++c) {
    const CoefficientRow& coefficient = plan.rows.coefficients[c];
    const int response = plan.response[c];
    const double x = coefficient.threshold ? 1.0 : value(level1, coefficient.variable);
    if (coefficient.random) put(response, rows.d, plan.p, random2++, x);
    for (int t = coefficient.firstterm; t < coefficient.firstterm + coefficient.nterms; ++t) {
      const TermRow& term = plan.rows.terms[at(t)];
      const double xw = x * value(level2, term.variable);
      if (term.random) put(response, rows.e, plan.b, random3++, xw);
      for (int f = term.firsteffect; f < term.firsteffect + term.neffects; ++f)
        put(response, rows.x, plan.g, plan.reduced[at(f)], xw * value(level3, plan.rows.effects[at(f)].variable));
    }
  }
  return whole;
}

bool FittedModel::joint() const { return results.joint.size() == parametersof(plan) * parametersof(plan); }

Responses linearpredictors(const FittedModel& fitted, const PredictorRows& rows) {
  const PredictorPlan& plan = fitted.plan;
  Responses made = emptyresponses(plan, plan.M);
  made.value = fixedpredictors(fitted, rows);
  Array<double> own(at(plan.M));
  for (std::size_t m = 0; m < at(plan.M); ++m) {
    own.fill(0.0);
    own[m] = 1.0;
    addfixed(plan, own.data(), rows.x, made.gradient.data() + m * parametersof(plan));
  }
  return made;
}

Responses fixedresponses(const FittedModel& fitted, const PredictorRows& rows) {
  ResponseCurve curve = emptycurve(fitted.outcome, fitted.plan.M);
  responsecurve(fitted.outcome, fixedpredictors(fitted, rows).data(), rows.count, curve);
  return responsesof(fitted, rows, curve, false);
}

Responses meanresponses(const FittedModel& fitted, const PredictorRows& rows) {
  ResponseCurve curve = emptycurve(fitted.outcome, fitted.plan.M);
  averagedcurve(fitted.outcome, fixedpredictors(fitted, rows).data(), spreadof(fitted, rows), rows.count, curve);
  return responsesof(fitted, rows, curve, true);
}

KnownEffects unknowneffects(const FittedModel& fitted) {
  const PredictorPlan& plan = fitted.plan;
  const int n = plan.p + plan.b;
  KnownEffects none{Array<double>(at(n)), Array<double>(square(n)), Array<double>(at(n) * at(plan.g))};
  const auto put = [&](const Array<double>& T, int order, int first) {
    for (int i = 0; i < order; ++i)
      std::copy_n(T.data() + i * order, order, none.covariance.data() + (first + i) * n + first);
  };
  put(fitted.results.est.taupi, plan.p, 0);
  put(fitted.results.est.taubeta, plan.b, plan.p);
  return none;
}

Responses unitpredictors(const FittedModel& fitted, const PredictorRows& rows, const KnownEffects& of) {
  const int M = fitted.plan.M;
  return throughunit(fitted, rows, of, M, [M](const double* eta, double* value, double* F) {
    std::copy_n(eta, M, value);
    for (int m = 0; m < M; ++m) F[m * M + m] = 1.0;
  });
}

Responses unitresponses(const FittedModel& fitted, const PredictorRows& rows, const KnownEffects& of) {
  ResponseCurve curve = emptycurve(fitted.outcome, fitted.plan.M);
  return throughunit(fitted, rows, of, curve.K, [&](const double* eta, double* value, double* F) {
    responsecurve(fitted.outcome, eta, rows.count, curve);
    std::copy(curve.mean.begin(), curve.mean.end(), value);
    std::copy(curve.first.begin(), curve.first.end(), F);
  });
}

Prediction predictionof(const FittedModel& fitted, const Responses& responses, int k, IntervalScale scale) {
  const std::size_t P = parametersof(fitted.plan), variances = P - at(fitted.plan.g);
  const double* gradient = responses.gradient.data() + at(k) * P;
  const bool joint = fitted.joint() && std::any_of(gradient, gradient + variances, [](double x) { return x != 0.0; });
  Prediction made;
  made.value = responses.value[at(k)];
  double variance = joint ? quadratic(gradient, fitted.results.joint, P)
                          : quadratic(gradient + variances, fitted.results.covariance, at(fitted.plan.g));
  if (!responses.spread.empty()) variance += responses.spread[at(k) * (responses.value.size() + 1)];
  made.se = std::sqrt(std::max(variance, 0.0));
  made.df = degreesof(fitted, gradient + variances);
  const bool counts = fitted.results.degrees.method == DegreesMethod::counts;
  if (!(made.df > (counts ? 1.0 : 0.0))) return made;
  constexpr double many = 1e6;
  const double critical = counts ? tcritical(static_cast<int>(std::min(made.df, many))) : tquantile(made.df);
  made.interval = intervalof(made.value, critical * made.se, scale);
  return made;
}

IntervalScale scaleof(const Outcome& outcome) {
  if (outcome.linear()) return IntervalScale::value;
  return outcome.family == Family::poisson ? IntervalScale::log : IntervalScale::logit;
}

void addresponses(Responses& sum, const Responses& responses, double weight) {
  if (sum.value.empty()) {
    sum.value.reset(responses.value.size());
    sum.gradient.reset(responses.gradient.size());
  }
  for (std::size_t i = 0; i < sum.value.size(); ++i) sum.value[i] += weight * responses.value[i];
  for (std::size_t i = 0; i < sum.gradient.size(); ++i) sum.gradient[i] += weight * responses.gradient[i];
}

}  // namespace kdr
