#include "estimate/quadrature/jointmodes.h"

#include <algorithm>
#include <cmath>

#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

constexpr int moststeps = 60, mosthalvings = 30;

// The records by columns.
void makexcolumns(const Frame& frame, const Level3Records& records, ModeWork& work) {
  const std::size_t npi = at(frame.npi), units = at(records.units);
  work.first.assign(1, 0);
  work.kind = densityof(frame, records);
  for (std::size_t j = 0; j < units; ++j)
    work.first.push_back(work.first.back() + padded(records.start[j + 1] - records.start[j]));
  const std::size_t total = work.first.back();
  const bool exposed = frame.outcome == Family::poisson && !records.n.empty();
  fit(work.xcolumns, npi * total);
  for (Array<double>* array : {&work.y, &work.n, &work.logn}) fit(*array, total);
  fit(work.D, total * frame.responses);
  for (std::size_t j = 0; j < units; ++j) {
    const std::size_t stride = work.first[j + 1] - work.first[j], from = records.start[j],
                      count = records.start[j + 1] - from;
    const double* x = records.x.data() + from * npi;
    double* columns = work.xcolumns.data() + work.first[j] * npi;
    for (std::size_t c = 0; c < npi; ++c) {
      for (std::size_t i = 0; i < count; ++i) {
        double sum = 0.0;
        for (std::size_t l = 0; l <= c; ++l) sum += x[i * npi + l] * frame.toX[l * npi + c];
        columns[c * stride + i] = sum;
      }
      std::fill(columns + c * stride + count, columns + (c + 1) * stride, 0.0);
    }
    const auto place = [&](Array<double>& array, const double* values, double behind) {
      double* to = array.data() + work.first[j];
      if (values != nullptr) std::copy_n(values + from, count, to);
      if (values == nullptr) std::fill_n(to, count, 1.0);
      std::fill(to + count, to + stride, behind);
    };
    place(work.y, records.y.data(), 0.0);
    place(work.n, frame.outcome != Family::poisson && !records.n.empty() ? records.n.data() : nullptr, 0.0);
    if (exposed) place(work.logn, records.n.data(), 1.0);
  }
  if (exposed) fastestquadratureloops().logarithms(work.logn.data(), total);
}

// Densities and their derivatives at effects: the objective, and M, h and D of every level-2 unit.
double evaluate(const Frame& frame, std::size_t k, std::size_t units, const double* z, const double* w,
                ModeWork& work) {
  const QuadratureLoops& loops = fastestquadratureloops();
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), s = q + r;
  double objective = 0.0;
  work.density = 0.0;
  double* c = work.coefficients.data();
  for (std::size_t b = 0; b < r; ++b) objective -= 0.5 * w[b] * w[b];
  for (std::size_t j = 0; j < units; ++j) {
    const double *C = work.columns.data() + j * npi * s, *own = z + j * q;
    for (std::size_t m = 0; m < npi; ++m) {
      double sum = work.fixed[j * npi + m];
      for (std::size_t b = 0; b < r; ++b) sum += C[m * s + q + b] * w[b];
      for (std::size_t a = 0; a < q; ++a) sum += C[m * s + a] * own[a];
      c[m] = sum;
    }
    const double weight = frame.weight2(k, j);
    work.density += weight * loops.recordsums[static_cast<int>(work.kind)](work.columnsof(frame, j));
    for (std::size_t a = 0; a < q; ++a) objective -= weight * 0.5 * own[a] * own[a];
  }
  return objective + work.density;
}

}  // namespace

RecordColumns ModeWork::columnsof(const Frame& frame, std::size_t j) {
  const std::size_t npi = at(frame.npi), place = first[j];
  return {npi,
          first[j + 1] - place,
          xcolumns.data() + place * npi,
          y.data() + place,
          n.data() + place,
          logn.data() + place,
          coefficients.data(),
          h.data() + j * npi,
          M.data() + j * packedsize(frame.npi),
          D.data() + place * frame.responses,
          scratch.data(),
          frame.responses,
          frame.multinomial() ? frame.response.data() : nullptr};
}

void placerecords(const Frame& frame, const Level3Records& records, ModeWork& work) {
  makeunitframes(frame, at(records.k), work.frames);
  makexcolumns(frame, records, work);
}

bool jointmodes(const Frame& frame, const SphericalPoint& point, const Level3Records& records, double promise,
                double* z, double* w, ModeWork& work) {
  placerecords(frame, records, work);
  return searchmodes(frame, point, records, promise, z, w, work);
}

bool searchmodes(const Frame& frame, const SphericalPoint& point, const Level3Records& records, double promised,
                 double* z, double* w, ModeWork& work) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), units = at(records.units), k = at(records.k);
  makecolumns(frame, point, work.frames, units, work.columns);
  fit(work.fixed, units * npi);
  for (std::size_t m = 0; m < units * npi; ++m)
    work.fixed[m] = dot(work.frames.Sx.data() + m * at(frame.g), point.g.data(), at(frame.g));
  fit(work.M, units * packedsize(frame.npi));
  fit(work.h, units * npi);
  fit(work.coefficients, npi);
  fit(work.scratch, 4 * (npi + packedsize(frame.npi)));
  fit(work.trialz, units * q);
  fit(work.trialw, r);
  double objective = evaluate(frame, k, units, z, w, work);
  if (!std::isfinite(objective)) {
    std::fill_n(z, units * q, 0.0);
    std::fill_n(w, r, 0.0);
    objective = evaluate(frame, k, units, z, w, work);
    if (!std::isfinite(objective)) return false;
  }
  for (int step = 0; step < moststeps; ++step) {
    if (!sweepunit(frame, work.columns, units, frame.weightsof2(k), work.M.data(), work.h.data(), z, w, work.sweep))
      return false;
    // The right sides times the moves: what the step promises, twice.
    double promise = 0.0;
    const double *g2 = work.sweep.right.data(), *g3 = g2 + units * q;
    for (std::size_t i = 0; i < units * q; ++i) promise += frame.weight2(k, i / q) * g2[i] * work.sweep.dz[i];
    // g3 holds what elimination of the units has left; their own share with dw stands in dz.
    for (std::size_t b = 0; b < r; ++b) promise += g3[b] * work.sweep.dw[b];
    for (std::size_t j = 0; j < units; ++j)
      for (std::size_t a = 0; a < q; ++a)
        for (std::size_t b = 0; b < r; ++b)
          promise -= frame.weight2(k, j) * g2[j * q + a] * work.sweep.slope[(j * q + a) * r + b] * work.sweep.dw[b];
    if (!std::isfinite(promise)) return false;
    if (promise < promised) break;
    double factor = 1.0, next = 0.0;
    int halving = 0;
    for (;; ++halving, factor *= 0.5) {
      if (halving > mosthalvings) {  // rounding hides the rest
        evaluate(frame, k, units, z, w, work);
        return promise < 1.0e-9;
      }
      for (std::size_t i = 0; i < units * q; ++i) work.trialz[i] = z[i] + factor * work.sweep.dz[i];
      for (std::size_t b = 0; b < r; ++b) work.trialw[b] = w[b] + factor * work.sweep.dw[b];
      next = evaluate(frame, k, units, work.trialz.data(), work.trialw.data(), work);
      if (std::isfinite(next) && next >= objective - 1.0e-10 * std::fabs(objective)) break;
    }
    std::copy_n(work.trialz.data(), units * q, z);
    std::copy_n(work.trialw.data(), r, w);
    objective = next;
  }
  return true;
}

}  // namespace kdr
