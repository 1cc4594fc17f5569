// What the made studies of both engines share: their units as a source, the elements of parameters, the records of a
// level-3 unit on full matrices, and the joint mode of its random effects by Newton's method.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include "estimate/likelihood/parameters.h"
#include "estimate/likelihood/unitrecords.h"
#include "estimate/linear/dense.h"
#include "estimate/linear/pass.h"
#include "kernel/sizes.h"

namespace densemodes {

using namespace kdr;
using dense::Matrix;

inline Matrix matrixof(const Array<double>& a, int rows, int cols) {
  Matrix m(rows, cols);
  std::copy(a.begin(), a.end(), m.cells.begin());
  return m;
}

// In the order of the parameters: (vech taupi, vech taubeta, gamma).
inline std::vector<double> elements(const Parameters& x) {
  const Array<double> all = elementsof(x);
  return {all.begin(), all.end()};
}

// The units of a study, `batchsize` at a time from `position` on.
template <class Study>
RecordSource sourceof(Study& study) {
  return {&study, [](void* state) { static_cast<Study*>(state)->position = 0; },
          [](void* state) -> const std::vector<Level3Records>& {
            Study& made = *static_cast<Study*>(state);
            made.batch.clear();
            for (std::size_t i = 0; i < made.batchsize && made.position < made.units.size(); ++i) {
              const Level3Records& u = made.units[made.position++];
              made.batch.push_back({u.k, u.firstunit, u.units, u.start.copy(), u.x.copy(), u.w2.copy(), u.w3.copy(),
                                    u.y.copy(), u.n.copy(), u.categories.copy()});
            }
            return made.batch;
          }};
}

// X has the columns of the fixed effects, F those of v, then those of u_j for each j.
struct DenseUnit {
  Matrix X, F;
  std::vector<double> y, n;
  std::vector<int> unit2;
  int units = 0;

  DenseUnit(const Design& design, int npi, int nbeta, int q, int r, int g, const Level3Records& unit)
      : units(unit.units) {
    X = Matrix(static_cast<int>(unit.y.size()), g);
    F = Matrix(X.rows, r + q * units);
    for (int j = 0; j < units; ++j)
      for (int i = static_cast<int>(unit.start[at(j)]); i < static_cast<int>(unit.start[at(j) + 1]); ++i) {
        unit2.push_back(j);
        y.push_back(unit.y[at(i)]);
        n.push_back(unit.n.empty() ? 1.0 : unit.n[at(i)]);
        const double* x = unit.x.data() + i * npi;
        std::vector<double> B(at(nbeta));
        for (int m = 0; m < nbeta; ++m) B[at(m)] = unit.w2[at(j * nbeta + m)] * x[design.owner2[at(m)]];
        for (std::size_t f = 0; f < design.owner3.size(); ++f)
          X(i, design.reduced[f]) += unit.w3[f] * B[at(design.owner3[f])];
        for (int m = 0; m < r; ++m) F(i, m) = B[at(m)];
        for (int a = 0; a < q; ++a) F(i, r + q * j + a) = x[design.random1[at(a)]];
      }
  }
};

struct DenseFit {
  Matrix b, V;  // the mode, and the inverse of the joint information there
  std::vector<double> eta;
  double logH = 0;                    // log-determinant of the information
  double quadratic = 0, records = 0;  // b' K b, and the log-density of the outcomes without its constants
};

// Of outcomes that are successes in n trials, or counts.
inline DenseFit densemode(const DenseUnit& unit, const Parameters& x, bool counts = false) {
  const int d = unit.F.cols;
  const Matrix Kp = inverse(matrixof(x.taupi, x.q, x.q)), Kb = inverse(matrixof(x.taubeta, x.r, x.r));
  Matrix K(d, d);
  for (int a = 0; a < d; ++a)
    for (int b = 0; b < d; ++b) {
      if (a < x.r && b < x.r) K(a, b) = Kb(a, b);
      if (a >= x.r && b >= x.r && (a - x.r) / x.q == (b - x.r) / x.q) K(a, b) = Kp((a - x.r) % x.q, (b - x.r) % x.q);
    }
  const Matrix fixed = unit.X * matrixof(x.gamma, x.g, 1);
  DenseFit fit;
  const auto evaluate = [&](const Matrix& b) {
    fit.b = b;
    fit.eta = (fixed + unit.F * b).cells;
    fit.quadratic = (t(b) * K * b)(0, 0);
    fit.records = 0.0;
    for (std::size_t i = 0; i < fit.eta.size(); ++i) {
      const double eta = fit.eta[i];
      fit.records += unit.y[i] * eta - unit.n[i] * (counts      ? std::exp(eta)
                                                    : eta > 0.0 ? eta + std::log1p(std::exp(-eta))
                                                                : std::log1p(std::exp(eta)));
    }
    return fit.records - 0.5 * fit.quadratic;
  };
  double value = evaluate(Matrix(d, 1));
  for (int step = 0; step < 60; ++step) {
    const Matrix from = fit.b;
    Matrix WF = unit.F, score = -1.0 * (K * from);
    for (int i = 0; i < unit.F.rows; ++i) {
      const double mean = counts ? std::exp(fit.eta[at(i)]) : 1.0 / (1.0 + std::exp(-fit.eta[at(i)]));
      for (int a = 0; a < d; ++a) {
        WF(i, a) *= unit.n[at(i)] * (counts ? mean : mean * (1.0 - mean));
        score(a, 0) += unit.F(i, a) * (unit.y[at(i)] - unit.n[at(i)] * mean);
      }
    }
    fit.V = inverse(K + t(unit.F) * WF, &fit.logH);
    const Matrix move = fit.V * score;
    if (std::sqrt((t(move) * move)(0, 0)) < 1e-15) break;
    double scale = 1.0, there = evaluate(from + move);
    while (!(there >= value - 1e-9 * (1.0 + std::fabs(value))) && scale > 1e-9)
      there = evaluate(from + (scale *= 0.5) * move);
    value = there;
  }
  return fit;
}

}  // namespace densemodes
