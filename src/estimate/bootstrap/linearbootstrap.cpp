#include "estimate/bootstrap/linearbootstrap.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "estimate/ascent/conescoring.h"
#include "estimate/bootstrap/generator.h"
#include "estimate/linear/marginalsurface.h"
#include "estimate/linear/profile.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

namespace {

constexpr double rounding = 1.0e-10;  // of a pivot: the column of such a one is 0

// What all replicates draw from.
struct Source {
  const MarginalSums& sums;
  const Estimates& est;
  std::vector<const double*> records;  // of each level-3 unit, its first
  Array<double> roottaubeta;           // b squared
  UnitTable<double> rootunit;          // per level-2 unit, p squared: of the covariance of Z1'Y about its mean
  UnitTable<double> inverse;           // per level-2 unit, p squared: S_AA^+
  UnitTable<double> rootresidual;      // per level-3 unit, nbeta squared: of what level 2 leaves of B
  Array<int> degrees;                  // per level-3 unit: records but for what Z1 and B take up
  Array<int> records1;                 // per level-3 unit
};

// Copies of the sums, in memory, to which the units are still to come, and with them.
MarginalSums withoutunits(const MarginalSums& sums) {
  MarginalSums made;
  made.design = sums.design;
  made.p = sums.p;
  made.b = sums.b;
  made.g = sums.g;
  made.nbeta = sums.nbeta;
  made.units2 = sums.units2;
  made.records1 = sums.records1;
  made.n2of = sums.n2of.copy();
  made.weights = {sums.weights.cells.copy(), sums.weights.width};
  made.residual = {sums.residual.cells.copy(), sums.residual.width};
  made.units.open(sums.recordsize(), at(sums.units2), {});
  return made;
}

MarginalSums copyof(MarginalSums& sums) {
  MarginalSums made = withoutunits(sums);
  sweepunits(
      sums.n2of, [](int) {},
      [&](int, std::size_t, const double* record) { std::copy_n(record, sums.recordsize(), made.units.append()); },
      [](int) {}, reading(sums.units));
  made.units.finish();
  return made;
}

// cov(Z1'Y) = S_AA T S_AA + s S_AA of a level-2 unit at given level-3 effects. Its coefficients S_AA^+ Z1'Y follow.
Source sourceof(const Pass& pass, MarginalSums& sums, const Estimates& est) {
  const int p = sums.p, nb = sums.nbeta, C = sums.columns(), units3 = sums.units3();
  Source made{sums, est, {}, Array<double>(square(sums.b)), {}, {}, {}, Array<int>(at(units3)), pass.n1of.copy()};
  lowerroot(est.taubeta.data(), sums.b, rounding, made.roottaubeta.data());
  made.rootunit.reset(at(sums.units2), square(p));
  made.inverse.reset(at(sums.units2), square(p));
  made.rootresidual.reset(at(units3), square(nb));
  Array<double> S(square(p)), half(square(p)), covariance(square(p)), block(square(nb));
  int taken = 0;
  sweepunits(
      sums.n2of,
      [&](int k) {
        made.records.push_back(nullptr);
        taken = 0;
        for (int i = 0; i < nb; ++i)
          for (int j = 0; j < nb; ++j) block[i * nb + j] = sums.residual.row(k)[(firstB + i) * C + firstB + j];
      },
      [&](int, std::size_t unit, const double* record) {
        if (made.records.back() == nullptr) made.records.back() = record;
        const int j = static_cast<int>(unit);
        unpack(p, record, S.data());
        taken += lowerroot(S.data(), p, rounding, half.data());
        pseudoinverse(S.data(), p, made.inverse.row(j));
        mulAB(half.data(), S.data(), est.taupi.data(), p, p, p);
        mulAB(covariance.data(), half.data(), S.data(), p, p, p);
        for (std::size_t i = 0; i < square(p); ++i) covariance[i] += est.sigma2 * S[i];
        lowerroot(covariance.data(), p, rounding, made.rootunit.row(j));
      },
      [&](int k) {
        taken += lowerroot(block.data(), nb, rounding, made.rootresidual.row(k));
        made.degrees[k] = std::max(0, made.records1[k] - taken);
      },
      reading(sums.units));
  return made;
}

// The same in a thread, which leaves the whole as it is.
MarginalSums ofworker(const Source& source) {
  MarginalSums made = withoutunits(source.sums);
  for (int k = 0; k < made.units3(); ++k)
    for (std::size_t j = 0; j < at(made.n2of[k]); ++j)
      std::copy_n(source.records[at(k)] + j * made.recordsize(), made.recordsize(), made.units.append());
  made.units.finish();
  return made;
}

// One worker: its sums, and the climb over them.
struct Worker {
  MarginalSums sums;
  Array<double> theta, v, z, h, drawn;
};

// Y into the sums of a worker: of each level-3 unit the effects v, with theta* = theta + v at the columns of Z2;
//   level 2     Z1'Y = Z1'B theta* + root z, and the coefficients S_AA^+ Z1'Y
//   what is left, of [Y | B]: B'Y = B'B theta* + h, h = root(s) root z, Y'Y = theta*'B'B theta* + 2 theta*'h +
//               s (|z|^2 + chi-square)
void drawoutcomes(const Source& source, Generator& random, Worker& worker) {
  MarginalSums& sums = worker.sums;
  const Estimates& est = source.est;
  const int p = sums.p, b = sums.b, nb = sums.nbeta, C = sums.columns();
  const double deviation = std::sqrt(est.sigma2);
  int unit = 0;
  sweeplevel3(
      sums.n2of,
      [&](int k, std::size_t, double* record) {
        level2means(*sums.design, sums.weights.row(k), est.gammahat.data(), worker.theta.data());
        for (int i = 0; i < b; ++i) worker.v[i] = random.normal();
        for (int i = 0; i < b; ++i) worker.theta[i] += dot(source.roottaubeta.data() + i * b, worker.v.data(), at(b));
        for (int j = 0; j < sums.n2of[k]; ++j, ++unit, record += sums.units.stride()) {
          double *const S = record + sums.atproducts(), *const beta = record + sums.atcoefficients();
          for (int i = 0; i < p; ++i) worker.z[i] = random.normal();
          for (int i = 0; i < p; ++i) {
            double sum = dot(source.rootunit.row(unit) + i * p, worker.z.data(), at(p));
            for (int m = 0; m < nb; ++m) sum += S[(firstB + m) * p + i] * worker.theta[m];
            S[i] = sum;
          }
          for (int i = 0; i < p; ++i) beta[i] = dot(source.inverse.row(unit) + i * p, S, at(p));
        }
        double* const R = sums.residual.row(k);
        double left = random.chisquare(source.degrees[k]);
        for (int m = 0; m < nb; ++m) worker.drawn[m] = random.normal();
        for (int m = 0; m < nb; ++m) {
          left += worker.drawn[m] * worker.drawn[m] * (source.rootresidual.row(k)[m * nb + m] > 0.0 ? 1.0 : 0.0);
          worker.h[m] = deviation * dot(source.rootresidual.row(k) + m * nb, worker.drawn.data(), at(nb));
        }
        double square = est.sigma2 * left;
        for (int m = 0; m < nb; ++m) {
          const double fitted = dot(R + (firstB + m) * C + firstB, worker.theta.data(), at(nb));
          square += worker.theta[m] * (fitted + 2.0 * worker.h[m]);
          R[firstB + m] = R[(firstB + m) * C] = fitted + worker.h[m];
        }
        R[0] = square;
      },
      changing(sums.units));
}

// The sums of level-3 units drawn with replacement.
void drawunits(const Source& source, const MarginalSums& whole, Generator& random, Worker& worker) {
  const int units3 = whole.units3();
  MarginalSums& sums = worker.sums;
  sums.units2 = sums.records1 = 0;
  std::vector<int> drawn(at(units3));
  for (int& k : drawn) {
    k = static_cast<int>(random.below(static_cast<std::uint64_t>(units3)));
    sums.units2 += whole.n2of[k];
    sums.records1 += source.records1[k];
  }
  sums.units.open(whole.recordsize(), at(sums.units2), {});
  for (int i = 0; i < units3; ++i) {
    const int k = drawn[at(i)];
    sums.n2of[i] = whole.n2of[k];
    std::copy_n(whole.weights.row(k), whole.weights.width, sums.weights.row(i));
    std::copy_n(whole.residual.row(k), whole.residual.width, sums.residual.row(i));
    for (int j = 0; j < whole.n2of[k]; ++j)
      std::copy_n(source.records[at(k)] + at(j) * whole.recordsize(), whole.recordsize(), sums.units.append());
  }
  sums.units.finish();
}

}  // namespace

Failure bootstraplinear(Pass& pass, const Estimates& est, Criterion criterion, const BootstrapRequest& request,
                        BootstrapResults& results) {
  MarginalSums read;
  if (Failure failure = makemarginalsums(pass, read)) return failure;
  MarginalSums whole = copyof(read);
  if (read.failure()) return read.failure();
  const Source source = sourceof(pass, whole, est);
  const Restriction restriction = allrestriction(pass.model(), pass.fixsigma2 == 0.0);
  const Array<double> start = variancepoint(whole, est);
  std::vector<std::unique_ptr<Worker>> workers(at(std::max(1, request.threads)));
  Replicates made(request.replicates, pass.g, pass.p, pass.b);
  runreplicates(request, made, [&](int replicate, int which) {
    std::unique_ptr<Worker>& worker = workers[at(which)];
    if (!worker) {
      worker = std::make_unique<Worker>();
      worker->theta.reset(at(pass.nbeta));
      worker->v.reset(at(pass.b));
      worker->z.reset(at(pass.p));
      worker->h.reset(at(pass.nbeta));
      worker->drawn.reset(at(pass.nbeta));
      worker->sums = ofworker(source);
    }
    Generator random(request.seed, static_cast<std::uint64_t>(replicate));
    request.cases ? drawunits(source, whole, random, *worker) : drawoutcomes(source, random, *worker);
    MarginalSurface surface{worker->sums, criterion, restriction, est.copy()};
    ConeProblem problem;
    problem.orders = {pass.p, pass.b};
    problem.free = restriction.free.copy();
    problem.nfree = restriction.nfree;
    problem.evaluate = [&](const Array<double>& point) { return surface.evaluate(point); };
    problem.test = problem.evaluate;
    const ConeResult result = climbcone(problem, {}, start);
    if (result.end != AscentEnd::converged) return false;
    Estimates there = estimatesat(worker->sums, result.point, surface.now);
    there.gammahat = surface.look(result.point).value.gamma.copy();
    made.put(replicate, there);
    return true;
  });
  results = bootstrapresults(made, request, est, interceptsalone(pass));
  if (request.kept != nullptr) *request.kept = std::move(made);
  return {};
}

}  // namespace kdr
