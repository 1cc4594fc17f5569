#include "estimate/quadrature/jointmodes.h"

#include <algorithm>
#include <cmath>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

constexpr int moststeps = 60, mosthalvings = 30;
// Twice the gain that a Newton step promises: the modes are then exact to 1e-10 of their standard errors. The curvature
// at them has a slope, so that a difference of two values needs that much.
constexpr double decrement = 1.0e-20;

void fit(Array<double>& array, std::size_t n) {
  if (array.size() < n) array.reset(n);
}

// Densities and their derivatives at effects: the objective, and M and h of every level-2 unit when `sums`.
double evaluate(const Frame& frame, const SphericalPoint& point, const Level3Records& records, const double* z,
                const double* w, bool sums, ModeWork& work) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), g = at(frame.g), units = at(records.units),
                    T = packedsize(frame.npi);
  double objective = 0.0;
  work.density = 0.0;
  double* c = work.coefficients.data();
  double *Az = work.scratch.data(), *Bw = Az + q;
  mulAB(Bw, point.B.data(), w, frame.r, 1, frame.r);
  for (std::size_t b = 0; b < r; ++b) objective -= 0.5 * w[b] * w[b];
  for (std::size_t j = 0; j < units; ++j) {
    mulAB(Az, point.A.data(), z + j * q, frame.q, 1, frame.q);
    mulAB(c, work.frames.Sx.data() + j * npi * g, point.g, frame.npi, 1, frame.g);
    addAB(c, work.frames.Se.data() + j * npi * r, Bw, frame.npi, 1, frame.r);
    addAB(c, frame.Sd.data(), Az, frame.npi, 1, frame.q);
    const std::size_t first = records.start[j], count = records.start[j + 1] - first;
    for (std::size_t i = first; i < first + count; ++i)
      work.densities.eta[i] = dot(work.rows.x.data() + i * npi, c, npi);
    const UnitOutcome outcome = unitoutcome(frame, records, work.rows, j);
    work.density += recorddensities(outcome.outcome, first, count, outcome.y, outcome.n, work.densities);
    for (std::size_t a = 0; a < q; ++a) objective -= 0.5 * z[j * q + a] * z[j * q + a];
    if (!sums) continue;
    double *M = work.M.data() + j * T, *h = work.h.data() + j * npi;
    std::fill_n(M, T, 0.0);
    std::fill_n(h, npi, 0.0);
    for (std::size_t i = first; i < first + count; ++i) {
      const double* x = work.rows.x.data() + i * npi;
      const double residual = work.densities.r[i], weight = work.densities.W[i];
      for (std::size_t a = 0, e = 0; a < npi; ++a) {
        h[a] += residual * x[a];
        const double weighted = weight * x[a];
        for (std::size_t b = 0; b <= a; ++b, ++e) M[e] += weighted * x[b];
      }
    }
  }
  return objective + work.density;
}

}  // namespace

bool jointmodes(const Frame& frame, const SphericalPoint& point, const Level3Records& records, double* z, double* w,
                ModeWork& work) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), units = at(records.units);
  makeunitframes(frame, at(records.k), work.frames);
  makeunitrows(frame, records, work.rows);
  work.densities.fit(records.start[units]);
  fit(work.M, units * packedsize(frame.npi));
  fit(work.h, units * npi);
  fit(work.coefficients, npi);
  fit(work.scratch, q + r);
  fit(work.trialz, units * q);
  fit(work.trialw, r);
  double objective = evaluate(frame, point, records, z, w, true, work);
  if (!std::isfinite(objective)) {
    std::fill_n(z, units * q, 0.0);
    std::fill_n(w, r, 0.0);
    objective = evaluate(frame, point, records, z, w, true, work);
    if (!std::isfinite(objective)) return false;
  }
  for (int step = 0; step < moststeps; ++step) {
    if (!sweepunit(frame, point, work.frames, units, work.M.data(), work.h.data(), z, w, work.sweep)) return false;
    // The right sides times the moves: what the step promises, twice.
    double promise = 0.0;
    const double *g2 = work.sweep.right.data(), *g3 = g2 + units * q;
    for (std::size_t i = 0; i < units * q; ++i) promise += g2[i] * work.sweep.dz[i];
    // g3 holds what elimination of the units has left; their own share with dw stands in dz.
    for (std::size_t b = 0; b < r; ++b) promise += g3[b] * work.sweep.dw[b];
    for (std::size_t j = 0; j < units; ++j)
      for (std::size_t a = 0; a < q; ++a)
        for (std::size_t b = 0; b < r; ++b)
          promise -= g2[j * q + a] * work.sweep.slope[(j * q + a) * r + b] * work.sweep.dw[b];
    if (!std::isfinite(promise)) return false;
    if (promise < decrement) break;
    double factor = 1.0, next = 0.0;
    int halving = 0;
    for (;; ++halving, factor *= 0.5) {
      if (halving > mosthalvings) {  // rounding hides the rest
        evaluate(frame, point, records, z, w, true, work);
        return promise < 1.0e-9;
      }
      for (std::size_t i = 0; i < units * q; ++i) work.trialz[i] = z[i] + factor * work.sweep.dz[i];
      for (std::size_t b = 0; b < r; ++b) work.trialw[b] = w[b] + factor * work.sweep.dw[b];
      next = evaluate(frame, point, records, work.trialz.data(), work.trialw.data(), true, work);
      if (std::isfinite(next) && next >= objective - 1.0e-10 * std::fabs(objective)) break;
    }
    std::copy_n(work.trialz.data(), units * q, z);
    std::copy_n(work.trialw.data(), r, w);
    objective = next;
  }
  return true;
}

}  // namespace kdr
