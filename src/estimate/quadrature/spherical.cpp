#include "estimate/quadrature/spherical.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <utility>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/quadrature/cuts.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Below this many times 1/sqrt(i_a) a standard deviation is tried as 0.
constexpr double edgeshare = 0.01;
// How far gamma~ may go in a step.
constexpr double gammareach = 3.0;

std::size_t pairof(std::size_t a, std::size_t b) { return a * (a + 1) / 2 + b; }

// What the units of a batch give back, in their order.
struct BatchSums {
  Array<double> values;  // per unit: score, information, complete, curvature
  std::vector<UnitSums> units;
  std::vector<char> fine;
};

// x' M x of column c of X (rows by n), M packed.
double packedform(std::size_t rows, const double* M, const double* X, std::size_t n, std::size_t c) {
  double sum = 0.0;
  for (std::size_t i = 0, e = 0; i < rows; ++i)
    for (std::size_t l = 0; l <= i; ++l, ++e) sum += (i == l ? 1.0 : 2.0) * M[e] * X[i * n + c] * X[l * n + c];
  return sum;
}

// part (q + r) += sums of W d~_a^2 and W e~_b^2 over the records of unit k, at the modes that `work` holds.
void addcurvature(const Frame& frame, std::size_t k, const ModeWork& work, double* part) {
  const std::size_t q = at(frame.q), r = at(frame.r), npi = at(frame.npi);
  for (std::size_t j = 0; j < frame.units.first[k + 1] - frame.units.first[k]; ++j) {
    const double weight = frame.weight3(k) * frame.weight2(k, j);
    const double *M = work.M.data() + j * packedsize(frame.npi), *Se = work.frames.Se.data() + j * npi * r;
    for (std::size_t a = 0; a < q; ++a) part[a] += weight * packedform(npi, M, frame.Sd.data(), q, a);
    for (std::size_t b = 0; b < r; ++b) part[q + b] += weight * packedform(npi, M, Se, r, b);
  }
}

// Adds `weight` times what a unit gives.
void addunit(std::size_t P, std::size_t effects, double weight, const UnitSums& sums, Evaluation& evaluation,
             SphericalState& state) {
  evaluation.value += weight * sums.loglikelihood;
  for (std::size_t c = 0; c < P; ++c) {
    evaluation.score[c] += weight * sums.score[c];
    evaluation.scale[c] += weight * sums.complete[c];
    for (std::size_t d = 0; d < P; ++d) {
      evaluation.information[c * P + d] += weight * sums.information[c * P + d];
      state.outer[c * P + d] += weight * sums.score[c] * (weight * sums.score[d]);
    }
  }
  for (std::size_t a = 0; a < effects; ++a) state.curvature[a] += weight * sums.curvature[a];
}

// Takes the score of held elements away. True when every other element has a score and an information.
bool takeheld(const std::vector<bool>& held, Evaluation& evaluation) {
  const std::size_t P = held.size();
  bool usable = true;
  for (std::size_t c = 0; c < P && usable; ++c) {
    if (held[c]) {
      evaluation.score[c] = 0.0;
      continue;
    }
    usable = std::isfinite(evaluation.score[c]) && evaluation.scale[c] > 0.0 && std::isfinite(evaluation.scale[c]) &&
             std::isfinite(evaluation.information[c * P + c]);
  }
  return usable;
}

}  // namespace

std::function<bool()> haltof(SphericalLikelihood& likelihood) {
  std::function<bool()> givenup = givingup(*likelihood.source);
  if (!givenup && !likelihood.halts) return {};
  return [&likelihood, givenup = std::move(givenup)] {
    if (givenup && givenup()) return true;
    likelihood.halted = likelihood.halted || (likelihood.halts && likelihood.halts());
    return likelihood.halted;
  };
}

bool takehalt(SphericalLikelihood& likelihood) {
  likelihood.stopped = likelihood.stopped || likelihood.halted;
  return std::exchange(likelihood.halted, false);
}

SphericalLikelihood makespherical(Family outcome, int npi, int nbeta, const Design& design, RecordSource& source,
                                  const Parameters& shape, bool diagonalpi, bool diagonalbeta, int threads,
                                  const std::vector<int>& response) {
  SphericalLikelihood likelihood;
  likelihood.frame = makeframe(outcome, npi, nbeta, design, source, shape, diagonalpi, diagonalbeta, response);
  likelihood.source = &source;
  likelihood.threads = std::max(threads, 1);
  for (SphericalState* state : {&likelihood.current, &likelihood.trial}) {
    state->nodes = makenodes(likelihood.frame);
    state->sums = makesums(likelihood.frame);
  }
  likelihood.work.resize(at(likelihood.threads));
  likelihood.modework.resize(at(likelihood.threads));
  return likelihood;
}

bool placemodes(SphericalLikelihood& likelihood, const Array<double>& point, Nodes& nodes, Array<double>* curvature) {
  const Frame& frame = likelihood.frame;
  const std::size_t q = at(frame.q), r = at(frame.r);
  const SphericalPoint there = sphericalpoint(frame, point);
  std::atomic<bool> fine{true};
  Array<double> parts(curvature != nullptr ? frame.units3() * (q + r) : 0);
  Halt halt(haltof(likelihood));
  const bool whole =
      overunits(*likelihood.source, likelihood.threads, halt, [&](const Level3Records& records, int worker) {
        ModeWork& work = likelihood.modework[at(worker)];
        const std::size_t k = at(records.k), first = records.firstunit, units = at(records.units);
        if (!jointmodes(frame, there, records, exactmodes, nodes.z.data() + first * q, nodes.w.data() + k * r, work)) {
          fine = false;
          return;
        }
        std::copy_n(work.sweep.C3.data(), r * r, nodes.C3.data() + k * r * r);
        std::copy_n(work.sweep.P.data(), units * q * q, nodes.P.data() + first * q * q);
        std::copy_n(work.sweep.K.data(), units * q * r, nodes.K.data() + first * q * r);
        if (curvature != nullptr) addcurvature(frame, k, work, parts.data() + k * (q + r));
      });
  if (curvature != nullptr) {
    curvature->reset(q + r);
    for (std::size_t k = 0; k < frame.units3(); ++k)
      for (std::size_t a = 0; a < q + r; ++a)
        (*curvature)[a] += parts[k * (q + r) + a] / (a < q ? frame.counted2 : static_cast<double>(frame.units3()));
  }
  return whole && fine;
}

void setreach(const Frame& frame, const Array<double>& point, const Array<double>& curvature, Evaluation& evaluation) {
  const std::size_t P = frame.count();
  evaluation.reach.reset(P);
  evaluation.turn.reset(P);
  evaluation.reach.fill(gammareach);
  evaluation.turn.fill(gammareach);
  const auto level = [&](int n, std::size_t first, const double* information) {
    eachelement(n, [&](int e, int a, int) {
      double row = 0.0;
      for (int c = 0; c <= a; ++c) {
        const double value = point[first + pairof(at(a), at(c))];
        row += value * value;
      }
      const double unit = 1.0 / std::sqrt(std::max(information[a], 1.0e-200));
      evaluation.reach[first + at(e)] = std::sqrt(row) + unit;
      evaluation.turn[first + at(e)] = unit;
    });
  };
  level(frame.q, 0, curvature.data());
  level(frame.r, packedsize(frame.q), curvature.data() + frame.q);
  for (std::size_t c = P - at(frame.thresholds); c < P; ++c) evaluation.reach[c] = evaluation.turn[c] = thresholdreach;
}

Evaluation evaluatespherical(SphericalLikelihood& likelihood, const Array<double>& point) {
  const Frame& frame = likelihood.frame;
  SphericalState& state = likelihood.trial;
  const std::size_t P = frame.count(), q = at(frame.q), r = at(frame.r), width = P + P * P + P + q + r;
  const SphericalPoint there = sphericalpoint(frame, point);
  Evaluation evaluation;
  evaluation.value = frame.counts + frame.combinations;
  evaluation.score.reset(P);
  evaluation.information.reset(P * P);
  evaluation.scale.reset(P);
  state.point = point.copy();
  state.outer.reset(P * P);
  state.curvature.reset(q + r);
  BatchSums batchsums;
  bool fine = true;
  Halt halt(haltof(likelihood));
  const bool whole = overbatches(
      *likelihood.source, likelihood.threads, halt,
      [&](const std::vector<Level3Records>& batch) {
        batchsums.values.reset(batch.size() * width);
        batchsums.units.assign(batch.size(), UnitSums{});
        batchsums.fine.assign(batch.size(), 0);
      },
      [&](const std::vector<Level3Records>& batch, std::size_t i, int worker) {
        UnitSums& sums = batchsums.units[i];
        sums.score = batchsums.values.data() + i * width;
        sums.information = sums.score + P;
        sums.complete = sums.information + P * P;
        sums.curvature = sums.complete + P;
        batchsums.fine[i] = integratespherical(frame, likelihood.grids, there, batch[i], state.nodes, state.sums,
                                               {&halt, worker}, likelihood.work[at(worker)], sums);
      },
      [&](const std::vector<Level3Records>& batch) {
        for (std::size_t i = 0; i < batch.size() && fine; ++i) {
          UnitSums& sums = batchsums.units[i];
          const double weight = frame.weight3(at(batch[i].k));
          fine = batchsums.fine[i] != 0;
          addcategories(frame, there, batch[i].categories, sums.loglikelihood, sums.score + P - frame.g);
          addunit(P, q + r, weight, sums, evaluation, state);
        }
        return fine;
      });
  addcategories(frame, there, evaluation.score.data() + P - frame.g, P, evaluation.information.data(),
                evaluation.scale.data());
  evaluation.usable = whole && fine && std::isfinite(evaluation.value) && takeheld(heldelements(frame), evaluation);
  for (std::size_t a = 0; a < q + r; ++a)
    state.curvature[a] /= a < q ? frame.counted2 : static_cast<double>(frame.units3());
  setreach(frame, point, state.curvature, evaluation);
  return evaluation;
}

namespace {

// The last elements of A that are within the edge, put to 0: by the pivots, from the last up, whole columns.
bool leveledge(int n, bool diagonal, std::size_t first, const double* curvature, Array<double>& point) {
  bool moved = false;
  for (std::size_t a = at(n); a-- > 0;) {
    double& pivot = point[first + pairof(a, a)];
    if (pivot == 0.0) continue;
    if (!(std::fabs(pivot) * std::sqrt(curvature[a]) < edgeshare)) {
      if (diagonal) continue;
      break;
    }
    pivot = 0.0;
    if (!diagonal)
      for (std::size_t c = a + 1; c < at(n); ++c) point[first + pairof(c, a)] = 0.0;
    moved = true;
  }
  return moved;
}

}  // namespace

AscentProblem ascentof(SphericalLikelihood& likelihood) {
  AscentProblem problem;
  problem.count = likelihood.frame.count();
  problem.held = heldelements(likelihood.frame);
  problem.approaches = true;
  problem.halted = [&likelihood] { return takehalt(likelihood); };
  problem.evaluate = [&likelihood](const Array<double>& point, Approach approach) {
    bool fine = false;
    if (brokensource(*likelihood.source)) return Evaluation{};
    if (approach == Approach::modes) {
      std::copy(likelihood.current.nodes.z.begin(), likelihood.current.nodes.z.end(), likelihood.trial.nodes.z.begin());
      std::copy(likelihood.current.nodes.w.begin(), likelihood.current.nodes.w.end(), likelihood.trial.nodes.w.begin());
      fine = placemodes(likelihood, point, likelihood.trial.nodes, nullptr);
    } else {
      fine = carrynodes(likelihood.frame, likelihood.current.point, likelihood.current.nodes, likelihood.current.sums,
                        point, likelihood.threads, likelihood.trial.nodes);
    }
    if (fine) return evaluatespherical(likelihood, point);
    return Evaluation{};
  };
  problem.accepted = [&likelihood] { std::swap(likelihood.current, likelihood.trial); };
  problem.rearrange = [&likelihood](Array<double>& point) {
    const Turn turn = pivot(likelihood.frame, point);
    if (!turn.turned) return false;
    turnnodes(likelihood.frame, turn, likelihood.current.nodes);
    likelihood.current.point = point.copy();
    return true;
  };
  problem.edge = [&likelihood](const Array<double>& point, const Evaluation&) {
    const Frame& frame = likelihood.frame;
    Array<double> moved = point.copy();
    const double* curvature = likelihood.current.curvature.data();
    const bool second = leveledge(frame.q, frame.diagonalpi, 0, curvature, moved);
    const bool third = leveledge(frame.r, frame.diagonalbeta, packedsize(frame.q), curvature + frame.q, moved);
    return second || third ? std::move(moved) : Array<double>();
  };
  return problem;
}

}  // namespace kdr
