#include "estimate/quadrature/posteriormoments.h"

#include <cmath>
#include <vector>

#include "estimate/likelihood/unitthreads.h"
#include "estimate/linear/usable.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vectors.h"

namespace kdr {

namespace {

// to times a triangle: what turns standard normal effects into those of the model.
Array<double> turned(int order, const Array<double>& to, const Array<double>& triangle) {
  Array<double> U(square(order));
  mulAB(U.data(), to.data(), triangle.data(), order, order, order);
  return U;
}

// The means x and covariances C of `units` units, turned by U.
void turnmoments(std::size_t units, int order, const Array<double>& U, const Array<double>& x, const Array<double>& C,
                 Array<double>& means, Array<double>& covariances) {
  const std::size_t n = at(order);
  means.reset(units * n);
  covariances.reset(units * n * n);
  Array<double> half(n * n);
  for (std::size_t j = 0; j < units; ++j) {
    mulAB(means.data() + j * n, U.data(), x.data() + j * n, order, 1, order);
    mulAB(half.data(), U.data(), C.data() + j * n * n, order, order, order);
    mulABt(covariances.data() + j * n * n, half.data(), U.data(), order, order, order);
  }
}

}  // namespace

Posteriors posteriorsof(const Frame& frame, const Array<double>& point, const Nodes& nodes) {
  const SphericalPoint there = sphericalpoint(frame, point);
  Posteriors made;
  const Array<double> U = turned(frame.q, frame.toD, there.A), V = turned(frame.r, frame.toE, there.B);
  turnmoments(frame.units2(), frame.q, U, nodes.z, nodes.P, made.u, made.uvariance);
  turnmoments(frame.units3(), frame.r, V, nodes.w, nodes.C3, made.v, made.vvariance);
  const std::size_t block = at(frame.q) * at(frame.r);
  made.uv.reset(frame.units2() * block);
  Array<double> half(block);
  for (std::size_t j = 0; block > 0 && j < frame.units2(); ++j) {
    mulAB(half.data(), U.data(), nodes.K.data() + j * block, frame.q, frame.r, frame.q);
    mulABt(made.uv.data() + j * block, half.data(), V.data(), frame.q, frame.r, frame.r);
  }
  return made;
}

void ReliabilitySums::add(const double* information) const {
  const std::size_t n = at(order);
  Array<double> inverse(n * n), half(n * n), V(n * n);
  if (!invertcovariance(information, order, inverse.data())) return;
  mulAB(half.data(), to.data(), inverse.data(), order, order, order);
  mulABt(V.data(), half.data(), to.data(), order, order, order);
  for (std::size_t a = 0; a < n; ++a) sums[a] += T[a * n + a] / (V[a * n + a] + T[a * n + a]);
  ++*count;
}

void addreliabilities(const Frame& frame, const SphericalPoint& point, const UnitFrames& frames, std::size_t units,
                      const double* weights, const double* M, const Array<double>& C2, const ReliabilitySums& level2,
                      const ReliabilitySums& level3) {
  const std::size_t npi = at(frame.npi), q = at(frame.q), r = at(frame.r), packed = packedsize(frame.npi);
  const int op = frame.npi, oq = frame.q, orr = frame.r;
  Array<double> full(npi * npi), MD(npi * q), ME(npi * r), dd(q * q), de(q * r), AC(q * q), kept(q * q), share(q * r),
      information(r * r);
  for (std::size_t j = 0; j < units; ++j) {
    const double *sum = M + j * packed, *Se = frames.Se.data() + j * npi * r;
    for (std::size_t a = 0, e = 0; a < npi; ++a)
      for (std::size_t b = 0; b <= a; ++b, ++e) full[a * npi + b] = full[b * npi + a] = sum[e];
    mulAB(MD.data(), full.data(), frame.Sd.data(), op, oq, op);
    mulAB(ME.data(), full.data(), Se, op, orr, op);
    mulAtB(dd.data(), frame.Sd.data(), MD.data(), oq, oq, op);
    mulAtB(de.data(), frame.Sd.data(), ME.data(), oq, orr, op);
    level2.add(dd.data());
    if (weights != nullptr) {
      multiply(ME.data(), npi * r, weights[j]);
      multiply(de.data(), q * r, std::sqrt(weights[j]));
    }
    // sum W ee' - (sum W ed') A C2 A' (sum W de').
    addAtB(information.data(), Se, ME.data(), orr, orr, op);
    mulAB(AC.data(), point.A.data(), C2.data() + j * q * q, oq, oq, oq);
    mulABt(kept.data(), AC.data(), point.A.data(), oq, oq, oq);
    mulAB(share.data(), kept.data(), de.data(), oq, orr, oq);
    for (std::size_t a = 0; a < r; ++a)
      for (std::size_t b = 0; b < r; ++b)
        for (std::size_t c = 0; c < q; ++c) information[a * r + b] -= de[c * r + a] * share[c * r + b];
  }
  level3.add(information.data());
}

Reliabilities meanreliabilities(const Frame& frame, const Array<double>& sums) {
  const std::size_t q = at(frame.q), r = at(frame.r), width = q + r + 2;
  Reliabilities means{Array<double>(q), Array<double>(r), 0, 0};
  for (std::size_t k = 0; k < frame.units3(); ++k) {
    const double* sum = sums.data() + k * width;
    for (std::size_t a = 0; a < q; ++a) means.level2[a] += sum[a];
    for (std::size_t a = 0; a < r; ++a) means.level3[a] += sum[q + a];
    means.units2 += static_cast<int>(sum[q + r]);
    means.units3 += static_cast<int>(sum[q + r + 1]);
  }
  for (double& sum : means.level2) sum = means.units2 > 0 ? sum / means.units2 : 0.0;
  for (double& sum : means.level3) sum = means.units3 > 0 ? sum / means.units3 : 0.0;
  return means;
}

Reliabilities reliabilitiesof(const SphericalLikelihood& likelihood) {
  // Of one thread.
  struct Work {
    UnitFrames frames;
    Array<double> columns, M, h;
    Sweep sweep;
  };
  const Frame& frame = likelihood.frame;
  const SphericalState& state = likelihood.current;
  const std::size_t q = at(frame.q), r = at(frame.r), npi = at(frame.npi), packed = packedsize(frame.npi),
                    width = q + r + 2;
  const SphericalPoint there = sphericalpoint(frame, state.point);
  const Parameters parameters = parametersof(frame, state.point);
  Array<double> sums(frame.units3() * width);
  std::vector<Work> work(at(likelihood.threads));
  overplaces(frame.units3(), likelihood.threads, [&](std::size_t k, int worker) {
    Work& own = work[at(worker)];
    const std::size_t first = frame.units.first[k], units = frame.units.first[k + 1] - first;
    makeunitframes(frame, k, own.frames);
    makecolumns(frame, there, own.frames, units, own.columns);
    fit(own.M, units * packed);
    fit(own.h, units * npi);
    for (std::size_t e = 0; e < units * packed; ++e) own.M[e] = static_cast<double>(state.sums.M[first * packed + e]);
    for (std::size_t e = 0; e < units * npi; ++e) own.h[e] = static_cast<double>(state.sums.h[first * npi + e]);
    if (!sweepunit(frame, own.columns, units, frame.weightsof2(k), own.M.data(), own.h.data(),
                   state.nodes.z.data() + first * q, state.nodes.w.data() + k * r, own.sweep))
      return;
    double* sum = sums.data() + k * width;
    addreliabilities(frame, there, own.frames, units, frame.weightsof2(k), own.M.data(), own.sweep.C2,
                     {frame.q, frame.toD, parameters.taupi, sum, sum + q + r},
                     {frame.r, frame.toE, parameters.taubeta, sum + q, sum + q + r + 1});
  });
  return meanreliabilities(frame, sums);
}

}  // namespace kdr
