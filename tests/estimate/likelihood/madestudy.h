// Records for the engines that need no MDM file: a model of 1, z (level 3), w (level 2) and x (level 1), with the
// intercept and, where an order is 2, the slope of x random; and centres and scales of the posterior to start from.
#pragma once

#include <cmath>
#include <cstddef>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "estimate/laplace/densemodes.h"
#include "estimate/quadrature/quadrature.h"

namespace madestudy {

using namespace kdr;
using densemodes::elements;
using densemodes::sourceof;

constexpr Outcome bernoulli{Family::bernoulli}, binomial{Family::binomial, 0, true}, poisson{Family::poisson},
    exposure{Family::poisson, 0, true};

struct Record {
  int k, j;
  double y, n, x, w, z;
};

struct Study {
  int q = 1, r = 1;
  int npi = 2, nbeta = 3;
  Outcome outcome = bernoulli;
  Design design;
  std::vector<int> response;  // of a multinomial outcome: the linear predictor of each level-1 coefficient
  std::vector<Level3Records> units;
  std::size_t position = 0, batchsize = 5;
  std::vector<Level3Records> batch;
  int units2 = 0;

  RecordSource source() { return sourceof(*this); }
  EngineData data() {
    std::size_t records = 0;
    for (const Level3Records& unit : units) records += unit.y.size();
    return {outcome.family, &design, npi, nbeta, static_cast<int>(units.size()), at(units2), records, source()};
  }
};

inline Array<int> integers(std::initializer_list<int> values) {
  Array<int> list(values.size());
  std::size_t i = 0;
  for (const int value : values) list[i++] = value;
  return list;
}

// Records sorted by k and j, both counted from 0 without gaps within their unit.
inline Study makestudy(const Outcome& outcome, int q, int r, const std::vector<Record>& records) {
  Study study;
  study.q = q;
  study.r = r;
  study.outcome = outcome;
  // Columns of B: intercept, w, x; those random at level 3 first.
  const int columnw = r == 2 ? 2 : 1, columnx = r == 2 ? 1 : 2;
  study.design.owner2 = r == 2 ? integers({0, 1, 0}) : integers({0, 0, 1});
  study.design.owner3 = integers({0, 0, columnw, columnx});
  study.design.reduced = integers({0, 1, 2, 3});
  study.design.random1 = q == 2 ? integers({0, 1}) : integers({0});
  for (std::size_t first = 0; first < records.size();) {
    std::size_t last = first;
    while (last < records.size() && records[last].k == records[first].k) ++last;
    Level3Records unit;
    unit.k = static_cast<int>(study.units.size());
    unit.firstunit = at(study.units2);
    unit.units = records[last - 1].j + 1;
    unit.start.reset(at(unit.units) + 1);
    unit.w2.reset(at(unit.units) * 3);
    unit.x.reset((last - first) * 2);
    unit.y.reset(last - first);
    if (outcome.counted) unit.n.reset(last - first);
    for (std::size_t i = first; i < last; ++i) {
      const Record& record = records[i];
      for (std::size_t j = at(record.j) + 1; j <= at(unit.units); ++j) unit.start[j] = i - first + 1;
      double* w2 = unit.w2.data() + at(record.j) * 3;
      w2[0] = w2[columnx] = 1.0;
      w2[columnw] = record.w;
      unit.x[(i - first) * 2] = 1.0;
      unit.x[(i - first) * 2 + 1] = record.x;
      unit.y[i - first] = record.y;
      if (!unit.n.empty()) unit.n[i - first] = record.n;
    }
    unit.w3.reset(4);
    unit.w3.fill(1.0);
    unit.w3[1] = records[first].z;
    study.units2 += unit.units;
    study.units.push_back(std::move(unit));
    first = last;
  }
  return study;
}

// Gives records, level-2 units and level-3 units the weights of(level, unit of level 3, place in it).
template <class Of>
void weigh(Study& study, Of of) {
  for (Level3Records& unit : study.units) {
    unit.weight1.reset(unit.y.size());
    unit.weight2.reset(at(unit.units));
    for (std::size_t i = 0; i < unit.y.size(); ++i) unit.weight1[i] = of(1, at(unit.k), i);
    for (std::size_t j = 0; j < at(unit.units); ++j) unit.weight2[j] = of(2, at(unit.k), j);
    unit.weight3 = of(3, at(unit.k), 0);
    weighrecords(unit);
  }
}
// Weights that differ in every unit.
inline double unevenweight(int level, std::size_t k, std::size_t place) {
  return 0.4 + 0.3 * static_cast<double>((5 * k + 3 * place + static_cast<std::size_t>(level)) % 7);
}

inline std::vector<Record> readrecords(const std::string& path) {
  std::vector<Record> records;
  std::ifstream file(path);
  for (Record record{}; file >> record.k >> record.j >> record.y >> record.n >> record.x >> record.w >> record.z;)
    records.push_back(record);
  return records;
}

// From (vech taupi, vech taubeta, gamma).
inline Parameters makeparameters(int q, int r, const std::vector<double>& theta) {
  Array<double> elements(theta.size());
  std::copy(theta.begin(), theta.end(), elements.begin());
  return parametersof(q, r, static_cast<int>(theta.size() - packedsize(q) - packedsize(r)), elements);
}

// The joint posterior mode of (v, u_1, ..., u_J) of every level-3 unit by Newton's method, and the diagonal blocks of
// the inverse of the curvature there.
inline Adaptation posteriormodes(const Study& study, const Parameters& parameters) {
  const int q = study.q, r = study.r;
  const bool counts = study.outcome.family == Family::poisson;
  Adaptation adaptation;
  adaptation.vstar.reset(study.units.size() * at(r));
  adaptation.C3.reset(study.units.size() * at(r * r));
  adaptation.ustar.reset(at(study.units2 * q));
  adaptation.P.reset(at(study.units2 * q * q));
  for (const Level3Records& unit : study.units) {
    const densemodes::DenseUnit records(study.design, study.npi, study.nbeta, q, r, parameters.g, unit);
    const densemodes::DenseFit fit = densemodes::densemode(records, parameters, counts);
    const auto put = [&](int first, int n, double* means, double* covariance) {
      for (int a = 0; a < n; ++a) {
        means[a] = fit.b(first + a, 0);
        for (int b = 0; b < n; ++b) covariance[a * n + b] = fit.V(first + a, first + b);
      }
    };
    put(0, r, adaptation.vstar.data() + at(unit.k * r), adaptation.C3.data() + at(unit.k * r * r));
    for (int j = 0; j < unit.units; ++j) {
      const std::size_t place = unit.firstunit + at(j);
      put(r + j * q, q, adaptation.ustar.data() + place * at(q), adaptation.P.data() + place * at(q * q));
    }
  }
  return adaptation;
}

// A study drawn from the model, outcome Bernoulli: `units3` level-3 units of `units2` level-2 units of `records`.
inline std::vector<Record> drawrecords(unsigned seed, int units3, int units2, int records, const Parameters& truth) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> uniform;
  const auto effects = [&](int n, const Array<double>& T) {  // of order 1 or 2
    std::pair<double, double> drawn{std::sqrt(T[0]) * normal(rng), 0.0};
    if (n == 2) {
      const double slope = T[2] / T[0];
      drawn.second = slope * drawn.first + std::sqrt(T[3] - slope * T[2]) * normal(rng);
    }
    return drawn;
  };
  std::vector<Record> all;
  for (int k = 0; k < units3; ++k) {
    const double z = normal(rng);
    const auto v = effects(truth.r, truth.taubeta);
    for (int j = 0; j < units2; ++j) {
      const double w = normal(rng);
      const auto u = effects(truth.q, truth.taupi);
      for (int i = 0; i < records; ++i) {
        const double x = normal(rng);
        const double eta = truth.gamma[0] + truth.gamma[1] * z + truth.gamma[2] * w + truth.gamma[3] * x + v.first +
                           u.first + (v.second + u.second) * x;
        all.push_back({k, j, uniform(rng) < 1.0 / (1.0 + std::exp(-eta)) ? 1.0 : 0.0, 1.0, x, w, z});
      }
    }
  }
  return all;
}

}  // namespace madestudy
