#include "estimate/quadrature/onepoint.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <utility>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/quadrature/cuts.h"
#include "estimate/quadrature/sixthorder.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

// Steps of the differences of the gradient, in units of an element's own error: forward, whose error goes with the
// step, and central, whose error goes with its square.
constexpr double forwardstep = 1.0e-4, centralstep = 0.001;
// Forward differences hold when they are as symmetric as second derivatives are, by this share.
constexpr double asymmetry = 2.0e-5;

// y (p) += M x, M packed.
void addpacked(std::size_t p, const double* M, const double* x, double factor, double* y) {
  for (std::size_t i = 0, e = 0; i < p; ++i)
    for (std::size_t l = 0; l <= i; ++l, ++e) {
      y[i] += factor * M[e] * x[l];
      if (l != i) y[l] += factor * M[e] * x[i];
    }
}

// How the modes of a unit answer to its curvature: t of the records as sums over x~, and p = H^-1 sum t b.
struct Response {
  Array<double> t, pz, pw;  // units by npi, units by q, [r]
};

// t = -1/2 sum W' a x~, and in the sixth order the derivative of log(1 - S); p from level 3 down, by the factors of the
// last sweep: pw = C3 L't, pz = C2 (cD't) + slope pw.
Response responseof(const Frame& frame, const Level3Records& records, ModeWork& work, const CurvatureRows& rows,
                    const SixthOrder* sixth) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), units = at(records.units);
  const int op = frame.npi, oq = frame.q, orr = frame.r;
  Response response{Array<double>(units * npi), Array<double>(units * q), Array<double>(r)};
  Array<double> right(r), product(npi), solved(q);
  for (std::size_t j = 0; j < units; ++j) {
    double* t = response.t.data() + j * npi;
    fastestquadratureloops().formsums(work.columnsof(frame, j), rows.form.data() + j * npi * npi, t);
    if (sixth != nullptr)
      for (std::size_t m = 0; m < npi; ++m) t[m] += sixth->byeta[j * npi + m];
    mulAtB(response.pz.data() + j * q, rows.cD.data(), t, oq, 1, op);  // the right side, for now
    for (std::size_t m = 0; m < npi; ++m) product[m] = frame.weight2(at(records.k), j) * t[m];
    addAtB(right.data(), rows.L.data() + j * npi * r, product.data(), orr, 1, op);
  }
  const Sweep& sweep = work.sweep;
  mulAB(response.pw.data(), sweep.C3.data(), right.data(), orr, 1, orr);
  for (std::size_t j = 0; j < units; ++j) {
    double* p = response.pz.data() + j * q;
    mulAB(solved.data(), sweep.C2.data() + j * q * q, p, oq, 1, oq);
    addAB(solved.data(), sweep.slope.data() + j * q * r, response.pw.data(), oq, 1, orr);
    std::copy_n(solved.data(), q, p);
  }
  return response;
}

// One level of effects in a level-2 unit.
struct LevelRows {
  std::size_t n;
  const double* S;      // npi by n: Sd or Se
  const double *x, *p;  // [n] the modes, and how they answer
  const double* left;   // npi by n: columns of V H^-1
  const double* U;      // npi by n, of the sixth order, else null
};

// score_ab += weight S_a' (rho x_b + h p_b - m_b) with m = M (left + U) - 2 N left (npi by n), N null in the first
// order. room: npi (n + 2).
void addlevel(std::size_t npi, const LevelRows& level, const double* M, const double* N, const double* h,
              const double* rho, double weight, double* room, double* score) {
  const std::size_t n = level.n;
  double *moved = room, *column = moved + npi * n, *product = column + npi;
  std::fill_n(moved, npi * n, 0.0);
  if (N != nullptr) {
    const int order = static_cast<int>(npi);
    mulAB(moved, N, level.left, order, static_cast<int>(n), order);
    multiply(moved, npi * n, -2.0);
  }
  for (std::size_t b = 0; b < n; ++b) {
    for (std::size_t m = 0; m < npi; ++m) {
      column[m] = level.left[m * n + b] + (level.U == nullptr ? 0.0 : level.U[m * n + b]);
      product[m] = moved[m * n + b];
    }
    addpacked(npi, M, column, 1.0, product);
    for (std::size_t m = 0; m < npi; ++m) moved[m * n + b] = product[m];
  }
  for (std::size_t a = 0; a < n; ++a)
    for (std::size_t b = 0; b <= a; ++b, ++score) {
      const double x = level.x[b], p = level.p[b];
      double sum = *score;
      for (std::size_t m = 0; m < npi; ++m)
        sum += weight * level.S[m * n + a] * (rho[m] * x + h[m] * p - moved[m * n + b]);
      *score = sum;
    }
}

// The gradient of one unit at its modes, which `work` holds. `sixth`: null for the first order.
void unitgradient(const Frame& frame, const Level3Records& records, const double* z, const double* w, ModeWork& work,
                  const CurvatureRows& rows, const SixthOrder* sixth, double* score) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), g = at(frame.g), units = at(records.units),
                    T = packedsize(frame.npi), P2 = packedsize(frame.q), P3 = packedsize(frame.r);
  const Response response = responseof(frame, records, work, rows, sixth);
  const double* pw = response.pw.data();
  Array<double> c(npi), rho(npi), room(npi * (std::max(q, r) + 2));
  for (std::size_t j = 0; j < units; ++j) {
    const double *M = work.M.data() + j * T, *h = work.h.data() + j * npi, *pz = response.pz.data() + j * q;
    const double *Sx = work.frames.Sx.data() + j * npi * g, *Se = work.frames.Se.data() + j * npi * r;
    const double weight = frame.weight2(at(records.k), j);
    // rho = h + t - M (E pw + cD pz)
    mulAB(c.data(), rows.E.data() + j * npi * r, pw, frame.npi, 1, frame.r);
    addAB(c.data(), rows.cD.data(), pz, frame.npi, 1, frame.q);
    for (std::size_t m = 0; m < npi; ++m) rho[m] = h[m] + response.t[j * npi + m];
    addpacked(npi, M, c.data(), -1.0, rho.data());
    for (std::size_t l = 0; l < g; ++l) {
      double sum = score[P2 + P3 + l];
      for (std::size_t m = 0; m < npi; ++m) sum += weight * Sx[m * g + l] * rho[m];
      score[P2 + P3 + l] = sum;
    }
    const double* N = sixth == nullptr ? nullptr : sixth->N.data() + j * npi * npi;
    const LevelRows second{q,
                           frame.Sd.data(),
                           z + j * q,
                           pz,
                           rows.left2.data() + j * npi * q,
                           sixth == nullptr ? nullptr : sixth->U2.data() + j * npi * q};
    const LevelRows third{
        r, Se, w, pw, rows.left3.data() + j * npi * r, sixth == nullptr ? nullptr : sixth->U3.data() + j * npi * r};
    addlevel(npi, second, M, N, h, rho.data(), weight, room.data(), score);
    addlevel(npi, third, M, N, h, rho.data(), weight, room.data(), score + P2);
  }
}

// Buffers of one thread.
struct LaplaceWork {
  CurvatureRows rows;
  SixthOrder sixth;
};

// The value of a level-3 unit behind its score (P + 1), at modes that are searched from z and w and left there. Its
// records stand placed in `work`. False when there are no modes or the sixth order has no logarithm.
bool unitlaplace(const SphericalLikelihood& likelihood, const SphericalPoint& there, const Level3Records& records,
                 double* z, double* w, ModeWork& work, LaplaceWork& own, double* score) {
  const Frame& frame = likelihood.frame;
  const std::size_t P = frame.count(), q = at(frame.q), r = at(frame.r), k = at(records.k), units = at(records.units);
  if (!searchmodes(frame, there, records, exactmodes, z, w, work)) return false;
  double squares = 0.0;
  for (std::size_t j = 0; j < units; ++j) squares += frame.weight2(k, j) * dot(z + j * q, z + j * q, q);
  score[P] = work.density - 0.5 * (squares + dot(w, w, r) + work.sweep.logdeterminant);
  makecurvaturerows(frame, there, units, work, own.rows);
  if (likelihood.sixth) {
    if (!makesixthorder(frame, records, z, w, work, own.rows, own.sixth)) return false;
    score[P] += own.sixth.share;
  }
  unitgradient(frame, records, z, w, work, own.rows, likelihood.sixth ? &own.sixth : nullptr, score);
  return true;
}

// The same at the trial's modes, whose covariances and sums of records are kept.
bool keptlaplace(SphericalLikelihood& likelihood, const SphericalPoint& there, const Level3Records& records,
                 ModeWork& work, LaplaceWork& own, double* score) {
  const Frame& frame = likelihood.frame;
  SphericalState& state = likelihood.trial;
  const std::size_t q = at(frame.q), r = at(frame.r), npi = at(frame.npi), T = packedsize(frame.npi);
  const std::size_t k = at(records.k), first = records.firstunit, units = at(records.units);
  placerecords(frame, records, work);
  if (!unitlaplace(likelihood, there, records, state.nodes.z.data() + first * q, state.nodes.w.data() + k * r, work,
                   own, score))
    return false;
  std::copy_n(work.sweep.C3.data(), r * r, state.nodes.C3.data() + k * r * r);
  std::copy_n(work.sweep.P.data(), units * q * q, state.nodes.P.data() + first * q * q);
  std::copy_n(work.sweep.K.data(), units * q * r, state.nodes.K.data() + first * q * r);
  for (std::size_t e = 0; e < units * T; ++e) state.sums.M[first * T + e] = static_cast<float>(work.M[e]);
  for (std::size_t e = 0; e < units * npi; ++e) state.sums.h[first * npi + e] = static_cast<float>(work.h[e]);
  if (likelihood.sixth) state.shares[k] = own.sixth.share;
  return true;
}

// The search for modes begins at those of the last accepted point.
void startatmodes(SphericalLikelihood& likelihood) {
  const Nodes& from = likelihood.current.nodes;
  Nodes& to = likelihood.trial.nodes;
  std::copy(from.z.begin(), from.z.end(), to.z.begin());
  std::copy(from.w.begin(), from.w.end(), to.w.begin());
}

}  // namespace

Evaluation evaluatelaplace(SphericalLikelihood& likelihood, const Array<double>& point) {
  const Frame& frame = likelihood.frame;
  SphericalState& state = likelihood.trial;
  const std::size_t P = frame.count();
  const SphericalPoint there = sphericalpoint(frame, point);
  Evaluation evaluation;
  evaluation.value = frame.counts + frame.combinations;
  evaluation.score.reset(P);
  state.point = point.copy();
  state.outer.reset(P * P);
  if (likelihood.sixth) state.shares.reset(frame.units3());
  std::vector<LaplaceWork> work(at(likelihood.threads));
  Array<double> values;  // of a batch: score and value of each unit
  bool fine = true;
  std::atomic<bool> found{true};
  Halt halt(haltof(likelihood));
  const bool whole = overbatches(
      *likelihood.source, likelihood.threads, halt,
      [&](const std::vector<Level3Records>& batch) { values.reset(batch.size() * (P + 1)); },
      [&](const std::vector<Level3Records>& batch, std::size_t i, int worker) {
        if (!keptlaplace(likelihood, there, batch[i], likelihood.modework[at(worker)], work[at(worker)],
                         values.data() + i * (P + 1)))
          found = false;
      },
      [&](const std::vector<Level3Records>& batch) {
        for (std::size_t i = 0; i < batch.size(); ++i) {
          double* score = values.data() + i * (P + 1);
          addcategories(frame, there, batch[i].categories, score[P], score + P - frame.g);
          multiply(score, P + 1, frame.weight3(at(batch[i].k)));
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

// A point beside the last accepted one: one element moved.
struct Beside {
  std::size_t element;
  double step;
  SphericalPoint there;
};
Beside besideof(const Frame& frame, const Array<double>& centre, std::size_t element, double step) {
  Array<double> point = centre.copy();
  point[element] += step;
  return {element, step, sphericalpoint(frame, point)};
}

// The scores at points beside the last accepted one, points by P; every unit is read once. Empty when one of them has
// none.
Array<double> scoresbeside(SphericalLikelihood& likelihood, const std::vector<Beside>& points) {
  const Frame& frame = likelihood.frame;
  const Nodes& centre = likelihood.current.nodes;
  const std::size_t P = frame.count(), q = at(frame.q), r = at(frame.r), n = points.size();
  struct Own {
    LaplaceWork laplace;
    Array<double> z, w;
  };
  std::vector<Own> work(at(likelihood.threads));
  Array<double> scores(n * P), values;  // values: of a batch, of each unit at each point its score and value
  std::atomic<bool> found{true};
  Halt halt(haltof(likelihood));
  const bool whole = overbatches(
      *likelihood.source, likelihood.threads, halt,
      [&](const std::vector<Level3Records>& batch) { values.reset(batch.size() * n * (P + 1)); },
      [&](const std::vector<Level3Records>& batch, std::size_t i, int worker) {
        const Level3Records& records = batch[i];
        Own& own = work[at(worker)];
        ModeWork& modes = likelihood.modework[at(worker)];
        fit(own.z, at(records.units) * q);
        fit(own.w, r);
        placerecords(frame, records, modes);
        for (std::size_t e = 0; e < n && found && !halt.halted(); ++e) {
          std::copy_n(centre.z.data() + records.firstunit * q, at(records.units) * q, own.z.data());
          std::copy_n(centre.w.data() + at(records.k) * r, r, own.w.data());
          if (!unitlaplace(likelihood, points[e].there, records, own.z.data(), own.w.data(), modes, own.laplace,
                           values.data() + (i * n + e) * (P + 1)))
            found = false;
        }
      },
      [&](const std::vector<Level3Records>& batch) {
        for (std::size_t i = 0; i < batch.size(); ++i)
          for (std::size_t e = 0; e < n; ++e) {
            double* score = values.data() + (i * n + e) * (P + 1);
            addcategories(frame, points[e].there, batch[i].categories, score[P], score + P - frame.g);
            const double weight = frame.weight3(at(batch[i].k));
            for (std::size_t c = 0; c < P; ++c) scores[e * P + c] += weight * score[c];
          }
        return found.load();
      });
  const bool fine =
      whole && found && std::all_of(scores.begin(), scores.end(), [](double s) { return std::isfinite(s); });
  return fine ? std::move(scores) : Array<double>();
}

// Differences of the score, whose rows of held elements are 0: forward ones where the central ones are not asked for.
// Makes H symmetric, and tells by what share of the diagonal it was not. False when a point has no score.
bool differences(SphericalLikelihood& likelihood, const Array<double>& centre, const Evaluation& there, bool central,
                 double* H, double& unequal) {
  const std::size_t P = likelihood.frame.count();
  const std::vector<bool> held = heldelements(likelihood.frame);
  std::vector<Beside> points;
  for (std::size_t i = 0; i < P; ++i) {
    if (held[i]) continue;
    const double step = (central ? centralstep : forwardstep) / std::sqrt(there.scale[i]);
    points.push_back(besideof(likelihood.frame, centre, i, step));
    if (central) points.push_back(besideof(likelihood.frame, centre, i, -step));
  }
  const Array<double> scores = scoresbeside(likelihood, points);
  if (scores.empty()) return points.empty();
  for (std::size_t e = 0; e < points.size(); e += central ? 2 : 1) {
    const double* above = scores.data() + e * P;
    const double* below = central ? above + P : there.score.data();
    const double distance = (central ? 2.0 : 1.0) * points[e].step;
    for (std::size_t l = 0; l < P; ++l)
      if (!held[l]) H[l * P + points[e].element] = (below[l] - above[l]) / distance;
  }
  unequal = 0.0;
  for (std::size_t i = 0; i < P; ++i)
    for (std::size_t l = 0; l < i; ++l) {
      const double share = std::fabs(H[i * P + l] - H[l * P + i]) / std::sqrt(std::fabs(H[i * P + i] * H[l * P + l]));
      if (share > unequal) unequal = share;
      H[i * P + l] = H[l * P + i] = 0.5 * (H[i * P + l] + H[l * P + i]);
    }
  return true;
}

// Minus the second derivatives at the last accepted point. Not usable when a point beside it has no score.
Evaluation exactinformation(SphericalLikelihood& likelihood, const Array<double>& centre, const Evaluation& there) {
  const std::size_t P = likelihood.frame.count();
  Evaluation exact{false,
                   there.value,
                   there.score.copy(),
                   Array<double>(P * P),
                   there.scale.copy(),
                   there.reach.copy(),
                   there.turn.copy()};
  double unequal = 0.0;
  exact.usable = differences(likelihood, centre, there, false, exact.information.data(), unequal);
  if (likelihood.halted || (exact.usable && unequal <= asymmetry)) return exact;
  Array<double> central(P * P);
  if (differences(likelihood, centre, there, true, central.data(), unequal)) {
    exact.usable = true;
    exact.information = std::move(central);
  }
  return exact;
}

// The information of the steps at a point.
struct StepInformation {
  Array<double> point, score, information, scale;
};
StepInformation stepinformation(const Array<double>& point, const Evaluation& there) {
  return {point.copy(), there.score.copy(), there.information.copy(), there.scale.copy()};
}
// That of the last accepted point, none at first, and of the trial.
struct StepInformations {
  StepInformation current, trial;
};

// The information carried to another point, by what the score has changed on the way: with s the way and y the fall of
// the score, H + y y'/(y's) - H s s'H/(s'Hs), which leads from one score to the other. As it was where the score rises.
Array<double> carriedinformation(const StepInformation& steps, const Array<double>& point, const Array<double>& score) {
  const std::size_t P = point.size();
  Array<double> H = steps.information.copy(), s(P), y(P), Hs(P);
  for (std::size_t i = 0; i < P; ++i) {
    s[i] = point[i] - steps.point[i];
    y[i] = steps.score[i] - score[i];
  }
  for (std::size_t i = 0; i < P; ++i) Hs[i] = dot(H.data() + i * P, s.data(), P);
  const double ys = dot(y.data(), s.data(), P), sHs = dot(s.data(), Hs.data(), P);
  if (!(ys > 0.0) || !(sHs > 0.0)) return H;
  for (std::size_t i = 0; i < P; ++i)
    for (std::size_t l = 0; l < P; ++l) H[i * P + l] += y[i] * y[l] / ys - Hs[i] * Hs[l] / sHs;
  return H;
}

// Whether the information still serves at `point`: the step that is left is short by it, and no element has come to 0
// or left it.
bool stillserves(const StepInformation& steps, const AscentProblem& problem, const Array<double>& point,
                 const Evaluation& there) {
  constexpr double shortstep = 0.1;  // of the decrement
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
  const auto steps = std::make_shared<StepInformations>();
  problem.rearrange = [steps, rearrange](Array<double>& point) {
    if (!rearrange(point)) return false;
    steps->current = {};
    return true;
  };
  problem.accepted = [steps, accepted = problem.accepted] {
    accepted();
    std::swap(steps->current, steps->trial);
  };
  AscentProblem held;
  held.count = problem.count;
  held.held = problem.held;
  problem.evaluate = [&likelihood, steps, held](const Array<double>& point, Approach) {
    SphericalState& trial = likelihood.trial;
    startatmodes(likelihood);
    Evaluation laplace = evaluatelaplace(likelihood, point);
    if (!laplace.usable) return laplace;
    if (!steps->current.point.empty()) {
      laplace.information = carriedinformation(steps->current, point, laplace.score);
      laplace.scale = steps->current.scale.copy();
      setreach(likelihood.frame, point, likelihood.current.curvature, laplace);
      if (stillserves(steps->current, held, point, laplace)) {
        trial.curvature = likelihood.current.curvature.copy();
        steps->trial = stepinformation(point, laplace);
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
    steps->trial = stepinformation(point, quadrature);
    return quadrature;
  };
  problem.exact = [&likelihood, steps](const Array<double>& point, const Evaluation& there) {
    Evaluation exact = exactinformation(likelihood, point, there);
    if (exact.usable) steps->current = stepinformation(point, exact);
    return exact;
  };
  return problem;
}

}  // namespace kdr
