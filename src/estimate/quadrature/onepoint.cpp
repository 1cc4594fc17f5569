#include "estimate/quadrature/onepoint.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <utility>

#include "estimate/likelihood/unitthreads.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Of the differences of the gradient, in units of an element's own error. Their error goes with the square.
constexpr double difference = 0.01;
// Their modes are exact to 1e-8 of their standard errors: no difference is as small.
constexpr double differencemodes = 1.0e-16;

// y (p) += M x, M packed.
void addpacked(std::size_t p, const double* M, const double* x, double factor, double* y) {
  for (std::size_t i = 0, e = 0; i < p; ++i)
    for (std::size_t l = 0; l <= i; ++l, ++e) {
      y[i] += factor * M[e] * x[l];
      if (l != i) y[l] += factor * M[e] * x[i];
    }
}

// The gradient of one unit at its modes, which `work` holds.
void unitgradient(const Frame& frame, const SphericalPoint& point, const Level3Records& records, const double* z,
                  const double* w, ModeWork& work, double* score) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), g = at(frame.g), units = at(records.units),
                    T = packedsize(frame.npi), P2 = packedsize(frame.q), P3 = packedsize(frame.r);
  const int op = frame.npi, oq = frame.q, orr = frame.r;
  const Sweep& sweep = work.sweep;
  Array<double> cD(npi * q), cE(units * npi * r), tsum(units * npi), pz(units * q), pw(r), right(r), Q(npi * npi),
      left(npi * std::max(q, r)), c(npi), hrho(npi), product(npi), solved(q), through(npi * std::max(q, r));
  mulAB(cD.data(), frame.Sd.data(), point.A.data(), op, oq, oq);
  const double* C3 = sweep.C3.data();
  for (std::size_t j = 0; j < units; ++j) {
    double *E = cE.data() + j * npi * r, *t = tsum.data() + j * npi;
    mulAB(E, work.frames.Se.data() + j * npi * r, point.B.data(), op, orr, orr);
    const double *P = sweep.P.data() + j * q * q, *K = sweep.K.data() + j * q * r;
    // Q = (E C3 + 2 D K) E' + D P D', whose form is a_i.
    mulAB(left.data(), E, C3, op, orr, orr);
    for (int twice = 0; twice < 2; ++twice) addAB(left.data(), cD.data(), K, op, orr, oq);
    mulABt(Q.data(), left.data(), E, op, op, orr);
    mulAB(left.data(), cD.data(), P, op, oq, oq);
    addABt(Q.data(), left.data(), cD.data(), op, op, oq);
    fastestquadratureloops().formsums(work.columnsof(frame, j), Q.data(), t);
    mulAtB(pz.data() + j * q, cD.data(), t, oq, 1, op);  // the right side, for now
    addAtB(right.data(), E, t, orr, 1, op);
    addAtB(right.data(), sweep.slope.data() + j * q * r, pz.data() + j * q, orr, 1, oq);
  }
  mulAB(pw.data(), C3, right.data(), orr, 1, orr);
  for (std::size_t j = 0; j < units; ++j) {
    const double *E = cE.data() + j * npi * r, *M = work.M.data() + j * T, *h = work.h.data() + j * npi;
    const double *P = sweep.P.data() + j * q * q, *K = sweep.K.data() + j * q * r;
    const double *Sx = work.frames.Sx.data() + j * npi * g, *Se = work.frames.Se.data() + j * npi * r;
    double* p = pz.data() + j * q;
    mulAB(solved.data(), sweep.C2.data() + j * q * q, p, oq, 1, oq);
    addAB(solved.data(), sweep.slope.data() + j * q * r, pw.data(), oq, 1, orr);
    std::copy_n(solved.data(), q, p);
    mulAB(c.data(), E, pw.data(), op, 1, orr);
    addAB(c.data(), cD.data(), p, op, 1, oq);
    for (std::size_t m = 0; m < npi; ++m) hrho[m] = h[m] + tsum[j * npi + m];
    addpacked(npi, M, c.data(), -1.0, hrho.data());
    for (std::size_t l = 0; l < g; ++l)
      for (std::size_t m = 0; m < npi; ++m) score[P2 + P3 + l] += Sx[m * g + l] * hrho[m];
    // One level: rows S (npi by n), modes x, p, and the columns N (npi by n) that M is to meet.
    const auto level = [&](std::size_t n, const double* S, const double* x, const double* px, const double* N,
                           double* to) {
      for (std::size_t b = 0; b < n; ++b) {
        for (std::size_t m = 0; m < npi; ++m) {
          c[m] = N[m * n + b];
          through[m * n + b] = 0.0;
        }
        product.fill(0.0);
        addpacked(npi, M, c.data(), 1.0, product.data());
        for (std::size_t m = 0; m < npi; ++m) through[m * n + b] = product[m];
      }
      for (std::size_t a = 0; a < n; ++a)
        for (std::size_t b = 0; b <= a; ++b, ++to)
          for (std::size_t m = 0; m < npi; ++m)
            *to += S[m * n + a] * (hrho[m] * x[b] + h[m] * px[b] - through[m * n + b]);
    };
    mulAB(left.data(), cD.data(), P, op, oq, oq);
    addABt(left.data(), E, K, op, oq, orr);
    level(q, frame.Sd.data(), z + j * q, p, left.data(), score);
    mulAB(left.data(), E, C3, op, orr, orr);
    addAB(left.data(), cD.data(), K, op, orr, oq);
    level(r, Se, w, pw.data(), left.data(), score + P2);
  }
}

}  // namespace

Evaluation evaluatelaplace(SphericalLikelihood& likelihood, const Array<double>& point, double promise) {
  const Frame& frame = likelihood.frame;
  SphericalState& state = likelihood.trial;
  const std::size_t P = frame.count(), q = at(frame.q), r = at(frame.r), npi = at(frame.npi), T = packedsize(frame.npi);
  const SphericalPoint there = sphericalpoint(frame, point);
  Evaluation evaluation;
  evaluation.value = frame.counts + frame.combinations;
  evaluation.score.reset(P);
  state.point = point.copy();
  state.outer.reset(P * P);
  Array<double> values;  // of a batch: score and value of each unit
  bool fine = true;
  std::atomic<bool> found{true};
  const bool whole = overbatches(
      *likelihood.source, likelihood.threads,
      [&](const std::vector<Level3Records>& batch) { values.reset(batch.size() * (P + 1)); },
      [&](const std::vector<Level3Records>& batch, std::size_t i, int worker) {
        const Level3Records& records = batch[i];
        ModeWork& work = likelihood.modework[at(worker)];
        const std::size_t k = at(records.k), first = records.firstunit, units = at(records.units);
        double *z = state.nodes.z.data() + first * q, *w = state.nodes.w.data() + k * r,
               *score = values.data() + i * (P + 1);
        if (!jointmodes(frame, there, records, promise, z, w, work)) {
          found = false;
          return;
        }
        std::copy_n(work.sweep.C3.data(), r * r, state.nodes.C3.data() + k * r * r);
        std::copy_n(work.sweep.P.data(), units * q * q, state.nodes.P.data() + first * q * q);
        std::copy_n(work.sweep.K.data(), units * q * r, state.nodes.K.data() + first * q * r);
        for (std::size_t e = 0; e < units * T; ++e) state.sums.M[first * T + e] = static_cast<float>(work.M[e]);
        for (std::size_t e = 0; e < units * npi; ++e) state.sums.h[first * npi + e] = static_cast<float>(work.h[e]);
        score[P] = work.density - 0.5 * (dot(z, z, units * q) + dot(w, w, r) + work.sweep.logdeterminant);
        unitgradient(frame, there, records, z, w, work, score);
      },
      [&](const std::vector<Level3Records>& batch) {
        for (std::size_t i = 0; i < batch.size(); ++i) {
          const double* score = values.data() + i * (P + 1);
          evaluation.value += score[P];
          for (std::size_t c = 0; c < P; ++c) {
            evaluation.score[c] += score[c];
            for (std::size_t d = 0; d < P; ++d) state.outer[c * P + d] += score[c] * score[d];
          }
        }
        fine = found;
        return fine;
      });
  evaluation.usable =
      whole && fine && std::isfinite(evaluation.value) &&
      std::all_of(evaluation.score.begin(), evaluation.score.end(), [](double s) { return std::isfinite(s); });
  const std::vector<bool> held = heldelements(frame);
  for (std::size_t c = 0; c < P; ++c)
    if (held[c]) evaluation.score[c] = 0.0;
  return evaluation;
}

namespace {

// The information of the steps, and where it was made.
struct StepInformation {
  Array<double> point, information, scale;
};

// Whether the information still serves at `point`: the step that is left is short by it, and no element has come to 0
// or left it.
bool stillserves(const StepInformation& steps, const AscentProblem& problem, const Array<double>& point,
                 const Evaluation& there) {
  constexpr double shortstep = 0.01;  // of the decrement
  if (steps.point.empty()) return false;
  for (std::size_t i = 0; i < point.size(); ++i)
    if ((point[i] == 0.0) != (steps.point[i] == 0.0)) return false;
  const NewtonStep step = newtonstep(problem, AscentSettings{}, there);
  return step.least > AscentSettings{}.definite && step.decrement < shortstep;
}

}  // namespace

AscentProblem laplaceascentof(SphericalLikelihood& likelihood) {
  AscentProblem problem = ascentof(likelihood);
  problem.approaches = false;
  const auto rearrange = problem.rearrange;
  const auto steps = std::make_shared<StepInformation>();
  problem.rearrange = [steps, rearrange](Array<double>& point) {
    if (!rearrange(point)) return false;
    steps->point.reset(0);
    return true;
  };
  AscentProblem held;
  held.count = problem.count;
  held.held = problem.held;
  problem.evaluate = [&likelihood, steps, held](const Array<double>& point, Approach) {
    SphericalState& trial = likelihood.trial;
    std::copy(likelihood.current.nodes.z.begin(), likelihood.current.nodes.z.end(), trial.nodes.z.begin());
    std::copy(likelihood.current.nodes.w.begin(), likelihood.current.nodes.w.end(), trial.nodes.w.begin());
    Evaluation laplace = evaluatelaplace(likelihood, point);
    if (!laplace.usable) return laplace;
    if (!steps->point.empty()) {
      laplace.information = steps->information.copy();
      laplace.scale = steps->scale.copy();
      setreach(likelihood.frame, point, likelihood.current.curvature, laplace);
      if (stillserves(*steps, held, point, laplace)) {
        trial.curvature = likelihood.current.curvature.copy();
        return laplace;
      }
    }
    // The quadrature leaves its moments in the place of the modes.
    Nodes modes = trial.nodes.copy();
    RecordSums sums{trial.sums.M.copy(), trial.sums.h.copy()};
    Array<double> outer = trial.outer.copy();
    Evaluation quadrature = evaluatespherical(likelihood, point);
    trial.nodes = std::move(modes);
    trial.sums = std::move(sums);
    trial.outer = std::move(outer);
    quadrature.value = laplace.value;
    quadrature.score = std::move(laplace.score);
    steps->point = point.copy();
    steps->information = quadrature.information.copy();
    steps->scale = quadrature.scale.copy();
    return quadrature;
  };
  return problem;
}

Array<double> laplaceinformation(SphericalLikelihood& likelihood, const std::vector<bool>& used,
                                 const Array<double>& scale, int& evaluations) {
  const std::size_t P = likelihood.frame.count();
  Array<double> information(P * P);
  const auto scoreat = [&](std::size_t element, double step) {
    Array<double> point = likelihood.current.point.copy();
    point[element] += step;
    // The modes of the other side, which come second, lie nearly opposite.
    const auto begin = [step](const Array<double>& here, Array<double>& there) {
      for (std::size_t i = 0; i < here.size(); ++i) there[i] = step > 0.0 ? here[i] : 2.0 * here[i] - there[i];
    };
    SphericalState& trial = likelihood.trial;
    begin(likelihood.current.nodes.z, trial.nodes.z);
    begin(likelihood.current.nodes.w, trial.nodes.w);
    ++evaluations;
    return evaluatelaplace(likelihood, point, differencemodes);
  };
  for (std::size_t i = 0; i < P; ++i) {
    if (!used[i]) continue;
    const double step = difference / std::sqrt(scale[i]);
    const Evaluation above = scoreat(i, step), below = scoreat(i, -step);
    if (!above.usable || !below.usable) return {};
    for (std::size_t l = 0; l < P; ++l)
      if (used[l]) information[l * P + i] = (below.score[l] - above.score[l]) / (2.0 * step);
  }
  for (std::size_t i = 0; i < P; ++i)
    for (std::size_t l = 0; l < i; ++l)
      information[i * P + l] = information[l * P + i] = 0.5 * (information[i * P + l] + information[l * P + i]);
  return information;
}

}  // namespace kdr
