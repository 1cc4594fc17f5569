// Small made studies for the maximum-likelihood engines, and the Bernoulli model written straight from its definition
// on full matrices: the oracle of their tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <utility>
#include <vector>

#include "estimate/laplace/densemodes.h"
#include "estimate/laplace/laplace.h"

namespace laplacestudy {

using namespace kdr;
using namespace densemodes;

struct Shape {
  const char* name;
  int npi;
  std::vector<int> random2;                   // level-1 coefficients random at level 2
  std::vector<std::pair<int, bool>> random3;  // level-2 coefficients random at level 3: owner, and whether W's
  int units3, units2, records;                // most level-2 units of a level-3 unit, most records of a level-2 unit
  unsigned seed;
  double beta0 = 0.0;
  double spread = 1.0;  // of the random effects that made the outcomes
};

// A study with a level-2 predictor for coefficient 0 (and for every W that is random), a level-3 predictor for the
// first two level-2 coefficients, and two fixed effects held equal. One level-2 unit has no record.
struct Study {
  Design design;
  EngineData data;
  std::vector<Level3Records> units;
  int q = 0, r = 0, g = 0;
  std::size_t batchsize = 3, position = 0;
  std::vector<Level3Records> batch;

  explicit Study(const Shape& shape, bool ragged = true) {
    std::mt19937_64 random(shape.seed);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform;
    q = static_cast<int>(shape.random2.size());
    r = static_cast<int>(shape.random3.size());
    std::vector<std::pair<int, bool>> columns = shape.random3;
    for (int c = 0; c < shape.npi; ++c)
      for (const bool w : {false, true})
        if ((!w || c == 0) && std::find(columns.begin(), columns.end(), std::pair(c, w)) == columns.end())
          columns.emplace_back(c, w);
    const int nbeta = static_cast<int>(columns.size());
    design.owner2.reset(at(nbeta));
    for (int m = 0; m < nbeta; ++m) design.owner2[at(m)] = columns[at(m)].first;
    const int full = nbeta + std::min(nbeta, 2);
    design.owner3.reset(at(full));
    design.variable3.reset(at(full));
    design.reduced.reset(at(full));
    for (int f = 0; f < full; ++f) {
      design.owner3[at(f)] = f < nbeta ? f : f - nbeta;
      design.variable3[at(f)] = f < nbeta ? 0 : 1;
      design.reduced[at(f)] = std::min(f, full - 2);
    }
    g = full - 1;
    design.random1.reset(at(q));
    for (int a = 0; a < q; ++a) design.random1[at(a)] = shape.random2[at(a)];

    data.design = &design;
    data.npi = shape.npi;
    data.nbeta = nbeta;
    data.units3 = shape.units3;
    for (int k = 0; k < shape.units3; ++k) {
      Level3Records unit;
      unit.k = k;
      unit.firstunit = data.units2;
      unit.units = ragged ? 1 + static_cast<int>(random() % at(shape.units2)) : shape.units2;
      unit.start.reset(at(unit.units) + 1);
      for (int j = 0; j < unit.units; ++j) {
        std::size_t n = ragged ? 1 + random() % at(shape.records) : at(shape.records);
        if (ragged && k == 1 && j == unit.units - 1 && j > 0) n = 0;
        unit.start[at(j) + 1] = unit.start[at(j)] + n;
      }
      const std::size_t n = unit.start[at(unit.units)];
      unit.x.reset(n * at(shape.npi));
      unit.y.reset(n);
      unit.w2.reset(at(unit.units * nbeta));
      unit.w3.reset(at(full));
      for (std::size_t i = 0; i < unit.x.size(); ++i) unit.x[i] = i % at(shape.npi) == 0 ? 1.0 : normal(random);
      for (int f = 0; f < full; ++f) unit.w3[at(f)] = f < nbeta ? 1.0 : normal(random);
      const double v = 0.7 * shape.spread * normal(random);
      for (int j = 0; j < unit.units; ++j) {
        const double W = normal(random), u = 0.9 * shape.spread * normal(random),
                     slope = 0.5 * shape.spread * normal(random);
        for (int m = 0; m < nbeta; ++m) unit.w2[at(j * nbeta + m)] = columns[at(m)].second ? W : 1.0;
        for (std::size_t i = unit.start[at(j)]; i < unit.start[at(j) + 1]; ++i) {
          const double* x = unit.x.data() + i * at(shape.npi);
          const double eta = shape.beta0 + v + u + 0.3 * W + (shape.npi > 1 ? (0.5 + slope) * x[1] : 0.0);
          unit.y[i] = uniform(random) < 1.0 / (1.0 + std::exp(-eta)) ? 1.0 : 0.0;
        }
      }
      data.units2 += at(unit.units);
      data.records += n;
      units.push_back(std::move(unit));
    }
    data.source = sourceof(*this);
  }
  Study(const Study&) = delete;
  Study& operator=(const Study&) = delete;

  // Estimates with variances of about `size`, and slightly correlated effects.
  [[nodiscard]] Parameters parameters(double size = 0.6, double gamma0 = 0.0) const {
    Parameters made{q, r, g, Array<double>(square(q)), Array<double>(square(r)), Array<double>(at(g))};
    const auto fill = [size](Array<double>& tau, int n) {
      for (int a = 0; a < n; ++a)
        for (int b = 0; b < n; ++b) tau[at(a * n + b)] = a == b ? size * (1.0 + 0.2 * a) : 0.15 * size * (a + b);
    };
    fill(made.taupi, q);
    fill(made.taubeta, r);
    for (int i = 0; i < g; ++i) made.gamma[at(i)] = 0.2 * ((i % 3) - 1) + (i == 0 ? gamma0 : 0.0);
    return made;
  }
  // Modes that are not 0, so that a sweep counts their changes.
  [[nodiscard]] std::pair<Array<double>, Array<double>> modes(double value = 0.1) const {
    std::pair<Array<double>, Array<double>> made{data.units2 * at(q), at(data.units3) * at(r)};
    made.first.fill(value);
    made.second.fill(value);
    return made;
  }
  [[nodiscard]] LaplaceLikelihood likelihood(const LaplaceSettings& settings) const {
    const auto [u, v] = modes();
    return laplacelikelihood(data, settings, parameters(), u, v);
  }
};

inline DenseUnit denseunit(const Study& study, const Level3Records& unit) {
  return {study.design, study.data.npi, study.data.nbeta, study.q, study.r, study.g, unit};
}

// Derivatives 0 to 7 of log(1 + exp(eta)), from the recurrence of the Taylor coefficients of mu in mu' = mu - mu^2.
inline std::vector<double> softplus(double eta) {
  std::vector<double> m{1.0 / (1.0 + std::exp(-eta))};
  for (int i = 0; i < 6; ++i) {
    double next = m[at(i)];
    for (int a = 0; a <= i; ++a) next -= m[at(a)] * m[at(i - a)];
    m.push_back(next / (i + 1));
  }
  std::vector<double> derivatives{std::log1p(std::exp(eta))};
  double factorial = 1.0;
  for (int i = 0; i < 7; ++i) {
    derivatives.push_back(m[at(i)] * factorial);
    factorial *= i + 1;
  }
  return derivatives;
}

// log(det) of a tau.
inline double logdet(const Array<double>& tau, int n) {
  double value = 0;
  dense::inverse(matrixof(tau, n, n), &value);
  return value;
}

// S_k by its double sum.
inline double denseS(const DenseUnit& unit, const DenseFit& fit) {
  const int n = unit.X.rows;
  const Matrix A = unit.F * fit.V * t(unit.F);
  double S = 0;
  for (int i = 0; i < n; ++i) {
    const auto k = softplus(fit.eta[at(i)]);
    const double a = A(i, i);
    S += k[4] * a * a / 8 + k[6] * a * a * a / 48;
    for (int l = 0; l < n; ++l)
      if (unit.unit2[at(i)] == unit.unit2[at(l)])
        S -= 5.0 / 24.0 * k[3] * softplus(fit.eta[at(l)])[3] * a * A(l, l) * A(i, l);
  }
  return S;
}

// The share of a level-3 unit in the log-likelihood.
inline double denselikelihood(const DenseUnit& unit, const Parameters& x, double correction = 1.0) {
  const DenseFit fit = densemode(unit, x);
  return fit.records - 0.5 * (fit.quadratic + fit.logH + logdet(x.taubeta, x.r) + unit.units * logdet(x.taupi, x.q)) +
         (correction == 0.0 ? 0.0 : correction * std::log(1.0 - denseS(unit, fit))) -
         0.5 * unit.X.rows * std::log(6.2831853);
}

}  // namespace laplacestudy
