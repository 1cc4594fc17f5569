#include "estimate/quadrature/regressionstart.h"

#include <algorithm>
#include <cmath>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/quadrature/cuts.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

// Predictors of mean square 1 are far apart when they are; where outcomes have no finite regression this is far enough.
constexpr int moststeps = 12;
constexpr double reach = 3.0;
constexpr double largestdeviation = 1.0;

// a'M b of columns of X (npi by n), M packed.
double form(std::size_t npi, const double* M, const double* X, std::size_t n, std::size_t a, std::size_t b) {
  double sum = 0.0;
  for (std::size_t i = 0, e = 0; i < npi; ++i)
    for (std::size_t l = 0; l <= i; ++l, ++e)
      sum += M[e] * (i == l ? X[i * n + a] * X[i * n + b] : X[i * n + a] * X[l * n + b] + X[l * n + a] * X[i * n + b]);
  return sum;
}

// The sums of one level-3 unit: value, score (g), information (its lower triangle in g squared), curvature (q + r) as
// i_a before it is divided by the units.
void unitregression(const Frame& frame, std::size_t k, const ModeWork& work, std::size_t units, double* sums) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), g = at(frame.g), T = packedsize(frame.npi);
  double *score = sums + 1, *information = score + g, *curvature = information + g * g;
  sums[0] = work.density;
  for (std::size_t j = 0; j < units; ++j) {
    const double *M = work.M.data() + j * T, *h = work.h.data() + j * npi, weight = frame.weight2(k, j);
    const double *Sx = work.frames.Sx.data() + j * npi * g, *Se = work.frames.Se.data() + j * npi * r;
    for (std::size_t c = 0; c < g; ++c) {
      for (std::size_t i = 0; i < npi; ++i) score[c] += weight * Sx[i * g + c] * h[i];
      for (std::size_t d = 0; d <= c; ++d) information[c * g + d] += weight * form(npi, M, Sx, g, c, d);
    }
    for (std::size_t a = 0; a < q; ++a) curvature[a] += weight * form(npi, M, frame.Sd.data(), q, a, a);
    for (std::size_t b = 0; b < r; ++b) curvature[q + b] += weight * form(npi, M, Se, r, b, b);
  }
}

// The likelihood at effects of 0; `curvature` gets i_a.
Evaluation evaluateregression(SphericalLikelihood& likelihood, const Array<double>& gamma, Array<double>& curvature) {
  const Frame& frame = likelihood.frame;
  const std::size_t q = at(frame.q), r = at(frame.r), g = at(frame.g), width = 1 + g + g * g + q + r;
  Array<double> point(frame.count()), parts;
  std::copy(gamma.begin(), gamma.end(), point.end() - static_cast<std::ptrdiff_t>(g));
  const SphericalPoint there = sphericalpoint(frame, point);
  Evaluation sums;
  sums.score.reset(g);
  sums.information.reset(g * g);
  sums.scale.reset(g);
  sums.reach.reset(g);
  sums.turn.reset(g);
  sums.reach.fill(reach);
  sums.turn.fill(reach);
  for (std::size_t c = g - at(frame.thresholds); c < g; ++c) sums.reach[c] = sums.turn[c] = thresholdreach;
  curvature.reset(q + r);
  std::vector<char> fine;
  Halt halt(haltof(likelihood));
  sums.usable = overbatches(
      *likelihood.source, likelihood.threads, halt,
      [&](const std::vector<Level3Records>& batch) {
        parts.reset(batch.size() * width);
        fine.assign(batch.size(), 0);
      },
      [&](const std::vector<Level3Records>& batch, std::size_t i, int worker) {
        const Level3Records& records = batch[i];
        ModeWork& work = likelihood.modework[at(worker)];
        double *z = likelihood.trial.nodes.z.data() + records.firstunit * q,
               *w = likelihood.trial.nodes.w.data() + at(records.k) * r;
        std::fill_n(z, at(records.units) * q, 0.0);
        std::fill_n(w, r, 0.0);
        if (!jointmodes(frame, there, records, exactmodes, z, w, work)) return;
        fine[i] = 1;
        unitregression(frame, at(records.k), work, at(records.units), parts.data() + i * width);
      },
      [&](const std::vector<Level3Records>& batch) {
        for (std::size_t i = 0; i < batch.size(); ++i) {
          double* part = parts.data() + i * width;
          const double *information = part + 1 + g, weight = frame.weight3(at(batch[i].k));
          if (fine[i] == 0) sums.value = NAN;
          addcategories(frame, there, batch[i].categories, part[0], part + 1);
          sums.value += weight * part[0];
          for (std::size_t c = 0; c < g; ++c) {
            sums.score[c] += weight * part[1 + c];
            for (std::size_t d = 0; d <= c; ++d) sums.information[c * g + d] += weight * information[c * g + d];
          }
          for (std::size_t a = 0; a < q + r; ++a) curvature[a] += weight * information[g * g + a];
        }
        return true;
      });
  for (std::size_t c = 0; c < g; ++c) {
    for (std::size_t d = 0; d < c; ++d) sums.information[d * g + c] = sums.information[c * g + d];
    sums.scale[c] = sums.information[c * g + c];
  }
  addcategories(frame, there, sums.score.data(), g, sums.information.data(), sums.scale.data());
  for (const double scale : sums.scale) sums.usable = sums.usable && scale > 0.0 && std::isfinite(scale);
  sums.usable = sums.usable && std::isfinite(sums.value);
  for (std::size_t a = 0; a < q + r; ++a) curvature[a] /= a < q ? frame.counted2 : static_cast<double>(frame.units3());
  return sums;
}

}  // namespace

bool regressionstart(SphericalLikelihood& likelihood, Array<double>& point) {
  const Frame& frame = likelihood.frame;
  Array<double> trial, curvature;
  AscentProblem problem;
  problem.count = at(frame.g);
  problem.evaluate = [&](const Array<double>& gamma, Approach) { return evaluateregression(likelihood, gamma, trial); };
  problem.accepted = [&] { curvature = trial.copy(); };
  problem.halted = [&] { return takehalt(likelihood); };
  AscentSettings settings;
  settings.iterations = moststeps;
  settings.fall = 0.0;
  Array<double> gamma(problem.count);
  startthresholds(frame, gamma.data());
  const AscentResult found = climb(problem, settings, gamma, Approach::carried);
  if (found.end == AscentEnd::unusable || found.halted || !(found.least > settings.definite)) return false;
  point.reset(frame.count());
  std::copy(found.point.begin(), found.point.end(), point.end() - static_cast<std::ptrdiff_t>(problem.count));
  const auto level = [&](int n, std::size_t first, const double* information) {
    eachelement(n, [&](int e, int a, int b) {
      if (a == b) point[first + at(e)] = std::min(1.0 / std::sqrt(information[a]), largestdeviation);
    });
  };
  level(frame.q, 0, curvature.data());
  level(frame.r, packedsize(frame.q), curvature.data() + frame.q);
  return true;
}

}  // namespace kdr
