#include "estimate/linear/marginalsurface.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "kernel/matrix.h"
#include "kernel/sizes.h"
#include "kernel/spectrum.h"

namespace kdr {

Array<double> variancepoint(const MarginalSums& sums, const Estimates& est) {
  Array<double> point(at(variancecount(sums)));
  pack(sums.p, est.taupi.data(), point.data());
  pack(sums.b, est.taubeta.data(), point.data() + packedsize(sums.p));
  point[point.size() - 1] = est.sigma2;
  return point;
}

Estimates estimatesat(const MarginalSums& sums, const Array<double>& point, const Estimates& est) {
  Estimates there = est.copy();
  unpack(sums.p, point.data(), there.taupi.data());
  unpack(sums.b, point.data() + packedsize(sums.p), there.taubeta.data());
  there.sigma2 = point[point.size() - 1];
  return there;
}

bool invertatunitdiagonal(std::size_t m, const double* I, Array<double>& X) {
  Array<double> scaled(m * m), L(m * m), inverse(m * m);
  for (std::size_t i = 0; i < m; ++i)
    if (!(I[i * m + i] > 0.0)) return false;
  const auto scale = [&](std::size_t i) { return 1.0 / std::sqrt(I[i * m + i]); };
  for (std::size_t i = 0; i < m; ++i)
    for (std::size_t j = 0; j < m; ++j) scaled[i * m + j] = I[i * m + j] * scale(i) * scale(j);
  if (!choleskyfactor(m, scaled.data(), L.data())) return false;
  constexpr double singular = 1.0e-6;  // of a pivot's root: no digit of the inverse is left
  for (std::size_t i = 0; i < m; ++i)
    if (L[i * m + i] < singular) return false;
  invertlower(m, L.data(), inverse.data());
  X.reset(m * m);
  inversefromfactor(m, inverse.data(), X.data());
  for (std::size_t i = 0; i < m; ++i)
    for (std::size_t j = 0; j < m; ++j) X[i * m + j] *= scale(i) * scale(j);
  return true;
}

const MarginalStep& MarginalSurface::look(const Array<double>& point) {
  if (!std::ranges::equal(point, lastpoint)) {
    latest = marginalstep(sums, estimatesat(sums, point, now), criterion, held);
    lastpoint = point.copy();
  }
  return latest;
}

Evaluation MarginalSurface::evaluate(const Array<double>& point) {
  Evaluation evaluation;
  const MarginalStep& here = look(point);
  const MarginalValue& value = here.value;
  if (!value.known) return evaluation;
  now = estimatesat(sums, point, now);
  now.gammahat = value.gamma.copy();
  evaluation.usable = true;
  evaluation.value = value.of(criterion);
  evaluation.score = here.score.copy();
  evaluation.information = here.average.copy();
  const std::size_t NT = point.size(), m = at(restriction.nfree);
  Array<double> reduced(m * m), inverse;
  reduceinformation(restriction, evaluation.information.data(), static_cast<int>(NT), reduced.data());
  if (m > 0 && !invertatunitdiagonal(m, reduced.data(), inverse)) {
    MarginalDerivatives made = marginalderivatives(sums, now, value, criterion, Derivatives::all);
    evaluation.score = std::move(made.score);
    evaluation.information = std::move(made.expected);
  }
  evaluation.scale.reset(NT);
  for (std::size_t i = 0; i < NT; ++i) evaluation.scale[i] = evaluation.information[i * NT + i];
  return evaluation;
}

}  // namespace kdr
