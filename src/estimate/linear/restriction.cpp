#include "estimate/linear/restriction.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "estimate/ascent/ascent.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/products.h"
#include "kernel/sizes.h"
#include "kernel/vech.h"

namespace kdr {

namespace {

// log det T + tr(T^-1 S), which the update makes small; false when T is not a usable covariance. T^-1 is left in
// `inverse`.
bool deviance(const double* T, const double* S, int n, Array<double>& inverse, double& value) {
  const Inversion inversion = invertsymmetric(n, T, inverse.data());
  if (inversion.result != 0 || !positivecovariance(T, n)) return false;
  value = inversion.logdeterminant();
  for (std::size_t i = 0; i < square(n); ++i) value += inverse[i] * S[i];
  return true;
}

}  // namespace

Restriction taurestriction(const Model& model, Tau which) {
  const TauHeld held = model.restrictions.of(which);
  const int n = model.coef.order(which);
  Restriction restriction;
  restriction.free.reset(packedsize(n));
  Array<int> parameterof(packedsize(n) + 1);  // free parameter of each equality group, from 1; 0 for none yet
  eachelement(n, [&](int e, int i, int j) {
    int& free = restriction.free[e];
    const int group = held.equal != nullptr ? std::abs((*held.equal)[e]) : 0;
    if ((held.fixed != nullptr && !isabsent((*held.fixed)[i * n + j])) || (held.diagonal && i != j)) {
      free = -1;
    } else if (group == 0) {
      free = restriction.nfree++;
    } else {
      if (parameterof[group] == 0) parameterof[group] = ++restriction.nfree;
      free = parameterof[group] - 1;
    }
  });
  return restriction;
}

Restriction allrestriction(const Model& model, bool sigma2free) {
  Restriction all;
  const Restriction parts[] = {taurestriction(model, Tau::pi), taurestriction(model, Tau::beta)};
  all.free.reset(parts[0].free.size() + parts[1].free.size() + 1);
  std::size_t e = 0;
  for (const Restriction& part : parts) {
    for (const int free : part.free) all.free[e++] = free < 0 ? -1 : free + all.nfree;
    all.nfree += part.nfree;
  }
  all.free[e] = sigma2free ? all.nfree++ : -1;
  return all;
}

void reduceinformation(const Restriction& restriction, const double* I, int ld, double* reduced) {
  const int n = static_cast<int>(restriction.free.size()), m = restriction.nfree;
  std::fill_n(reduced, square(m), 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      if (const int a = restriction.free[i], c = restriction.free[j]; a >= 0 && c >= 0)
        reduced[a * m + c] += I[i * ld + j];
}

void reducevector(const Restriction& restriction, const double* s, double* reduced) {
  std::fill_n(reduced, restriction.nfree, 0.0);
  for (std::size_t i = 0; i < restriction.free.size(); ++i)
    if (const int a = restriction.free[i]; a >= 0) reduced[a] += s[i];
}

void expandinverse(const Restriction& restriction, const double* reduced, double* full, int ld) {
  const int n = static_cast<int>(restriction.free.size()), m = restriction.nfree;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const int a = restriction.free[i], c = restriction.free[j];
      full[i * ld + j] = a >= 0 && c >= 0 ? reduced[a * m + c] : 0.0;
    }
}

namespace {

// The ascent of a covariance matrix whose second moment is S, over its free elements; the others stay those of `T`.
struct MomentSurface {
  const Restriction& restriction;
  const double* S;
  int n;
  Array<double> T;  // at the last point
  Array<double> inverse, A, product, score, information;

  MomentSurface(const Restriction& held, const double* moment, const double* start, int order)
      : restriction(held),
        S(moment),
        n(order),
        T(square(order)),
        inverse(square(order)),
        A(square(order)),
        product(square(order)),
        score(packedsize(order)),
        information(packedsize(order) * packedsize(order)) {
    std::copy_n(start, square(order), T.data());
  }
  void moveto(const Array<double>& point) {
    eachelement(n, [&](int e, int i, int j) {
      if (const int a = restriction.free[e]; a >= 0) T[i * n + j] = T[j * n + i] = point[a];
    });
  }
  [[nodiscard]] Array<double> point() const {
    Array<double> free(at(restriction.nfree));
    eachelement(n, [&](int e, int i, int j) {
      if (const int a = restriction.free[e]; a >= 0) free[a] = T[i * n + j];
    });
    return free;
  }
  Evaluation evaluate(const Array<double>& there);
};

// Score and information of one unit: 1/2 D'vec(T^-1 (S - T) T^-1), 1/2 D'(T^-1 (x) T^-1) D.
Evaluation MomentSurface::evaluate(const Array<double>& there) {
  const std::size_t m = at(restriction.nfree);
  Evaluation made{false,           0.0, Array<double>(m), Array<double>(m * m), Array<double>(m), Array<double>(m),
                  Array<double>(m)};
  moveto(there);
  if (!deviance(T.data(), S, n, inverse, made.value)) return made;
  made.value *= -0.5;
  for (std::size_t i = 0; i < square(n); ++i) product[i] = S[i] - T[i];
  mulAB(A.data(), inverse.data(), product.data(), n, n, n);
  mulAB(product.data(), A.data(), inverse.data(), n, n, n);
  const int elements = static_cast<int>(packedsize(n));
  eachelement(n, [&](int e, int i, int j) {
    score[e] = (i == j ? 0.5 : 1.0) * product[i * n + j];
    eachelement(n, [&](int f, int k, int l) {
      information[e * elements + f] = 0.5 * duplicatedproduct(inverse.data(), n, i, j, k, l);
    });
  });
  reduceinformation(restriction, information.data(), elements, made.information.data());
  reducevector(restriction, score.data(), made.score.data());
  for (std::size_t a = 0; a < m; ++a) made.scale[a] = made.information[a * (m + 1)];
  made.reach.fill(INFINITY);
  made.turn.fill(1.0);
  made.usable = std::isfinite(made.value);
  return made;
}

}  // namespace

void maximisetau(double* T, const double* S, int n, const Restriction& restriction) {
  if (restriction.none()) {
    std::copy_n(S, square(n), T);
    return;
  }
  if (restriction.nfree == 0) return;
  MomentSurface surface(restriction, S, T, n);
  AscentProblem problem;
  problem.count = at(restriction.nfree);
  problem.evaluate = [&surface](const Array<double>& point, Approach) { return surface.evaluate(point); };
  problem.accepted = [] {};
  AscentSettings settings;
  settings.decrement = settings.finaldecrement = 1.0e-14;  // of one unit: rounding of the sums over many hides the rest
  settings.settled = INFINITY;
  settings.fall = 0.0;
  settings.halvings = 40;
  surface.moveto(climb(problem, settings, surface.point(), Approach::modes).point);
  std::copy_n(surface.T.data(), square(n), T);
}

}  // namespace kdr
